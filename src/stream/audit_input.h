// The audit file as the daemon reads it: lines, where they end, the wait at the end of the file,
// and the way from one audit file to the next when the mail server's logs are rotated.
//
// Between sections, read_line() waits while the file does not grow (a "waiting..." line in debug
// mode, then a 2-second sleep) and returns nothing once a stop has been requested. Inside a
// section, read_section_line() waits the same way, and a stop requested meanwhile abandons the
// section: it throws SectionAbandoned, and the caller discards everything the section produced.
//
// At the end of the file, before each wait and after it (before anything past the offset is
// read), the file is looked at (rotated_files.h):
// - Truncated in place (shorter than what was read, or other first bytes: copied and truncated):
//   reading goes on in the copy from the same offset, without a break, then in the files
//   rotated after the copy, then in the truncated file from its start. With no copy, the data
//   beyond the offset is reported lost and the file is read from its start.
// - Another file at the name that holds data (renamed away, and the mail server writes to the new
//   file): the old file is read to its end through the descriptor held, then the files rotated
//   after it, then the new one from its start. A new file that stays empty does not end the old
//   one, which may still receive the mail server's late writes.
// - Something at the name that cannot be read (a FIFO, a directory, no permission): reported once
//   (report()) and waited for at the usual pace; read once it becomes readable.
// A file that will not grow any more ends with the bytes that never got their line feed, as a
// last line; a section still incomplete there is cut short: read_section_line() throws
// SectionCut, and the next file is taken up at the next read_line().
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "stream/line_reader.h"
#include "stream/rotated_files.h"
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

// Audit data the daemon could not read: `lost` bytes (-1 when not known) that no file holds any
// more, or, with `unreadable`, why the file at the audit file's name cannot be read.
struct AuditTrouble {
  long long lost = -1;
  std::optional<std::string> unreadable;
  int after_line = -1;  // the last line read before the gap, when not the line just read
};

class AuditInput {
 public:
  // Reads `source`, the audit file as opened at start. With `name`, a regular file is followed
  // under that name through rotations; without, it is only read on (memory, a pipe).
  AuditInput(ByteSource& source, Waiter& waiter, Tracer* trace = nullptr,
             std::optional<std::string> name = std::nullopt);

  // False once the daemon is to stop.
  bool keep_going() { return waiter_.keep_going(); }
  std::optional<std::string_view> read_line() {
    if (reading_ != Reading::kEnded) {
      if (auto line = reader_.next()) return line;
    }
    return next(false);
  }
  std::string_view read_section_line() {
    if (reading_ != Reading::kEnded) {
      if (auto line = reader_.next()) return *line;
    }
    return section_line_after_wait();
  }

  // Where the lines handed out so far end in the file being read.
  long long offset() const { return reader_.offset(); }
  // The fingerprint of the file being read, covering at most its first `covered` bytes.
  Fingerprint fingerprint(long long covered) const {
    return fingerprint_of(reader_.head().substr(0, static_cast<size_t>(covered)));
  }
  FileId file_id() const { return source_->id(); }
  // How much of the file being read has not been handed out yet.
  long long unread_bytes() { return std::max(0LL, source_->size() - offset()); }

  // At start, for a position taken in a file whose first bytes had `head` and of which `offset`
  // bytes were read: finds that file (the one at the name, or a rotated one) and reads on from
  // `offset`. kAfterLoss: the file was truncated with no copy left, and is read from its start.
  enum class Resumed { kNo, kYes, kAfterLoss };
  Resumed resume(long long offset, const Fingerprint& head, const FileId& id);

  // Runs at the end of the file before each wait.
  void set_before_wait(std::function<void()> hook) { before_wait_ = std::move(hook); }
  // Runs when, between sections, reading goes on in another file (or at the start of the
  // truncated one), before any of its lines is handed out.
  void set_at_new_file(std::function<void()> hook) { at_new_file_ = std::move(hook); }
  // Runs, between sections, for audit data that could not be read.
  void set_report(std::function<void(const AuditTrouble&)> hook) { report_ = std::move(hook); }
  void report(const AuditTrouble& trouble);

 private:
  enum class Reading {
    kLive,      // the file followed under the name: waited for at its end
    kDraining,  // a file that no longer grows: read to its end, then the plan goes on
    kEnded,     // nothing more is read of this file: the plan goes on at once
  };
  // The next line, waiting at the end of the file (and following the file's rotation).
  std::optional<std::string_view> next(bool in_section);
  std::string_view section_line_after_wait();
  // Looks at the file at the end of the live one; true when reading goes on elsewhere.
  bool look();
  // Goes on with the next file of the plan.
  void take_next();
  void trace_rotated();

  ByteSource& initial_;  // the file opened at start
  ByteSource* source_;
  std::unique_ptr<ByteSource> owned_;  // the file being read, when the input opened it
  LineReader reader_;
  Waiter& waiter_;
  Tracer* trace_;
  std::optional<AuditFiles> files_;
  Reading reading_ = Reading::kLive;
  ReadPlan plan_;
  std::optional<std::string> unreadable_;  // to report between sections
  std::function<void()> before_wait_;
  std::function<void()> at_new_file_;
  std::function<void(const AuditTrouble&)> report_;
};

}  // namespace adcdf
