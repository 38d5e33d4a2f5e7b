// Failures the daemon cannot handle itself.
//
// AdcdfError is what the support layer throws when an operating-system call that the daemon
// depends on fails (opening, writing, renaming an output file...). It carries a group, a reason
// and a message text naming what failed and why; the outer block of main prints them as the
// "adcdf error:" line and ends the process with status 1.
//
// ProcessExit ends the process with a given status after unwinding the stack, so destructors
// still run (argument errors end with 2, allocation failures inside converters with their own
// codes).
#pragma once

#include <stdexcept>
#include <string>

namespace adcdf {

enum ErrorGroup : int {
  kGroupFile = 1,    // a file operation failed
  kGroupMemory = 2,  // memory could not be obtained
  kGroupExport = 3,  // the exporter: its generations or its target
};

enum ErrorReason : int {
  kReasonOpen = 1,
  kReasonRead = 2,
  kReasonWrite = 3,
  kReasonRename = 5,
  kReasonRemove = 6,
  kReasonTruncate = 7,
  kReasonAlloc = 8,
  kReasonLocked = 9,
  kReasonLink = 10,
  kReasonJournal = 11,
  kReasonSpecial = 12,   // a FIFO, socket, device or directory at one of the daemon's names
  kReasonHardLink = 13,  // a file with other links at a name the daemon writes
  // The exporter's own failures, by what ends them:
  kReasonRefused = 14,      // a person: permissions, a full disk, a wrong schema or password
  kReasonUnavailable = 15,  // waiting: a database restarting or unreachable, a lock held
  kReasonInterrupted = 16,  // a signal stopped the run
};

class AdcdfError : public std::runtime_error {
 public:
  AdcdfError(int group, int reason, const std::string& text)
      : std::runtime_error(text), group_(group), reason_(reason) {}
  int group() const { return group_; }
  int reason() const { return reason_; }

 private:
  int group_;
  int reason_;
};

// Throws AdcdfError for a failed system call on `name`, with strerror of `err`.
[[noreturn]] void raise_file_error(int reason, const std::string& what, const std::string& name,
                                   int err);

// The message text printed for an error: the catalogue entry for its group and reason,
// followed by the details the error carries.
std::string msg_GetAnyMsg(const AdcdfError& error);

struct ProcessExit {
  int status;
};

}  // namespace adcdf
