// The audit file as the daemon reads it: lines, the line counter, and the wait at its end.
//
// Between sections, read_line() waits while the file does not grow (a "waiting..." line in debug
// mode, then a 2-second sleep) and returns nothing once a stop has been requested. Inside a
// section, read_section_line() waits the same way, and a stop requested meanwhile abandons the
// section: it throws SectionAbandoned, and the caller discards everything the section produced.
#pragma once

#include <optional>
#include <string_view>

#include "stream/line_reader.h"
#include "support/trace.h"

namespace adcdf {

struct SectionAbandoned {};

// Decides what happens at the end of the audit file.
class Waiter {
 public:
  virtual ~Waiter() = default;
  // False when the daemon is to stop rather than wait.
  virtual bool keep_going() = 0;
  // Waits for the file to grow.
  virtual void pause() = 0;
};

// The daemon's own policy: stop once SIGTERM has arrived, otherwise sleep 2 seconds.
class PollWaiter : public Waiter {
 public:
  explicit PollWaiter(Tracer& trace) : trace_(trace) {}
  bool keep_going() override;
  void pause() override;

 private:
  Tracer& trace_;
};

class AuditInput {
 public:
  AuditInput(ByteSource& source, Waiter& waiter) : reader_(source), waiter_(waiter) {}

  // False once the daemon is to stop.
  bool keep_going() { return waiter_.keep_going(); }
  std::optional<std::string_view> read_line();
  std::string_view read_section_line();

 private:
  LineReader reader_;
  Waiter& waiter_;
};

}  // namespace adcdf
