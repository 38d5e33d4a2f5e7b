// The audit file as the daemon reads it: lines, where they end, and the wait at its end.
//
// Between sections, read_line() waits while the file does not grow (a "waiting..." line in debug
// mode, then a 2-second sleep) and returns nothing once a stop has been requested. Inside a
// section, read_section_line() waits the same way, and a stop requested meanwhile abandons the
// section: it throws SectionAbandoned, and the caller discards everything the section produced.
//
// At the end of the file, before each wait, the name is looked at. When another file has taken
// it (the mail server's log rotation renamed the old one away), the old file is read to its end
// and then the new one from its start; when the file has become shorter than what was read of
// it (truncated in place), it is read again from its start. Bytes at the end of the old file that
// never got their line feed are handed out as a last line. A section still incomplete when the
// old file ends is cut short: read_section_line() throws SectionCut once the new file is open.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "stream/line_reader.h"
#include "support/trace.h"

namespace adcdf {

struct SectionAbandoned {};
struct SectionCut {};

// Decides what happens at the end of the audit file.
class Waiter {
 public:
  virtual ~Waiter() = default;
  // False when the daemon is to stop rather than wait.
  virtual bool keep_going() = 0;
  // Waits for the file to grow.
  virtual void pause() = 0;
};

// The daemon's own policy: stop once a stop signal has arrived, otherwise sleep 2 seconds. With
// `once`, the end of the file is the stop: as if SIGTERM arrived there, without the sleep.
class PollWaiter : public Waiter {
 public:
  PollWaiter(Tracer& trace, bool once) : trace_(trace), once_(once) {}
  bool keep_going() override;
  void pause() override;

 private:
  Tracer& trace_;
  bool once_;
};

// The beginning of an audit file by its content, so that a copy restored from a backup is still
// recognised: how many bytes are covered, and their hash.
struct Fingerprint {
  uint32_t length = 0;
  uint64_t hash = 0;
  bool operator==(const Fingerprint&) const = default;
};

inline constexpr uint32_t kFingerprintBytes = 4096;

// The fingerprint of the first min(`covered`, kFingerprintBytes) bytes of `source`; nothing when
// the source holds fewer.
std::optional<Fingerprint> fingerprint_of(ByteSource& source, long long covered);

class AuditInput {
 public:
  AuditInput(ByteSource& source, Waiter& waiter, Tracer* trace = nullptr)
      : source_(source), reader_(source), waiter_(waiter), trace_(trace) {}

  // False once the daemon is to stop.
  bool keep_going() { return waiter_.keep_going(); }
  std::optional<std::string_view> read_line() {
    if (auto line = reader_.next()) return line;
    return next(false);
  }
  std::string_view read_section_line() {
    if (auto line = reader_.next()) return *line;
    return section_line_after_wait();
  }

  // Where the lines handed out so far end in the file being read.
  long long offset() const { return reader_.offset(); }
  // The fingerprint of the file being read, covering at most its first `covered` bytes.
  Fingerprint fingerprint(long long covered);
  FileId file_id() const { return source_.id(); }
  ByteSource& source() { return source_; }
  // Reads on from `offset` of the file being read.
  void start_at(long long offset);
  // Runs at the end of the file before each wait.
  void set_before_wait(std::function<void()> hook) { before_wait_ = std::move(hook); }
  // Runs when, between sections, reading goes on in the file that took the audit file's name (or
  // at the start of the truncated file), before any of its lines is handed out.
  void set_at_new_file(std::function<void()> hook) { at_new_file_ = std::move(hook); }

 private:
  // The next line, waiting at the end of the file (and following the file's rotation).
  std::optional<std::string_view> next(bool in_section);
  std::string_view section_line_after_wait();
  // The old file has been read to its end: go on with the file now at the name.
  bool switch_file();

  ByteSource& source_;
  LineReader reader_;
  Waiter& waiter_;
  Tracer* trace_;
  std::function<void()> before_wait_;
  std::function<void()> at_new_file_;
  NameChange change_ = NameChange::kNone;  // seen at the name, not yet acted on
  std::optional<Fingerprint> full_;        // the fingerprint once it covers kFingerprintBytes
};

}  // namespace adcdf
