// The audit file's rotated files, and what the daemon reads when the audit file was rotated.
//
// A rotated file is a regular file in the audit file's directory whose name is the audit file's
// name followed by '.' or '-', a digit, then only digits, dots and dashes, optionally ending in
// ".gz" (audit.1, audit.2.gz, audit-20261125, audit-20261125-1764000000). Other names
// (audit.tmp, audit~, audit.bak) are never read, no symbolic link is followed, and a ".gz" file
// is read decompressed. Rotated files are told apart by their content (the first bytes,
// decompressed), never by their names, which logrotate shifts at every rotation; their
// modification time orders files of different content (logrotate's compress keeps the
// original's).
//
// Everything here only reads: a crash at any point leaves nothing to repair.
#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "stream/audit_sources.h"
#include "support/hash.h"

namespace adcdf {

// Whether `entry`, a name in the audit file's directory, is one of `audit`'s rotated files
// (`audit` being the audit file's own name within that directory).
bool is_rotated_name(std::string_view audit, std::string_view entry);

// One thing to do after the file being read: read a file, or report audit data that is gone.
struct NextRead {
  enum Kind {
    kRotated,   // a rotated file, which no longer grows: read to its end
    kAtName,    // the file at the audit file's name, followed from here on
    kSameFile,  // the file being read, again from `start` (it was truncated)
    kLost,      // audit data no file holds any more: `lost` bytes, or -1 when not known
  };
  Kind kind;
  std::unique_ptr<ByteSource> source;  // for kRotated and kAtName
  long long start = 0;
  long long lost = -1;
  std::string head;  // for kSameFile: its first bytes when it was found truncated
};
using ReadPlan = std::deque<NextRead>;

// What a look at the audit file found.
struct Look {
  // Read from `offset` of this copy instead of the file being read: the same bytes, so the lines
  // go on without a break (the file being read was copied and truncated).
  std::unique_ptr<ByteSource> copy;
  // What is read after the file being read (or the copy) ends. Empty when nothing changed.
  ReadPlan plan;
  bool rotated() const { return copy != nullptr || !plan.empty(); }
  // Set when the file being read was truncated: it must not be read on from its offset.
  bool truncated = false;
  // Why the file at the name cannot be read, the first time in a row that it cannot.
  std::optional<std::string> unreadable;
};

// Where the daemon resumes at start.
struct Resume {
  std::unique_ptr<ByteSource> source;  // null: the file at the name
  bool lost = false;                   // the position's file was truncated and no copy was found
};

class AuditFiles {
 public:
  explicit AuditFiles(std::string name) : name_(std::move(name)) {}

  // At the end of the file being read (`held`, of which `offset` bytes were handled and whose
  // first bytes were `head`), before and after each wait: whether it was truncated (shorter than
  // `offset`, or other first bytes) or another file holding data took its name, and what to read
  // then.
  Look look(ByteSource& held, long long offset, std::string_view head);

  // Finds the file a position was taken in by its content (`head` covers its first bytes, and it
  // holds at least `offset` bytes) among the file at the name and the rotated files; the
  // recorded identity `id` only helps to find it. Nothing when it is nowhere.
  std::optional<Resume> resume(ByteSource& at_name, long long offset, const Fingerprint& head,
                               const FileId& id);

  // Before a truncated file is read again from its start (`head`, its first bytes when it was
  // found truncated): if it was copied and truncated once more meanwhile (while the daemon was
  // still reading the first copy), what to read instead, from the start of the copy that begins
  // with `head`. Empty when it still begins with `head`.
  ReadPlan truncated_again(ByteSource& held, std::string_view head);

 private:
  std::string name_;
  bool unreadable_ = false;  // the file at the name could not be read at the last look
};

}  // namespace adcdf
