#include "support/error.h"

#include <cstring>

namespace adcdf {

void raise_file_error(int reason, const std::string& what, const std::string& name, int err) {
  throw AdcdfError(kGroupFile, reason, what + " " + name + ": " + std::strerror(err));
}

std::string error_message(const AdcdfError& error) {
  const char* head = "unexpected failure";
  if (error.group() == kGroupMemory) {
    head = "out of memory";
  } else if (error.group() == kGroupFile) {
    switch (error.reason()) {
      case kReasonOpen:
        head = "file open failed";
        break;
      case kReasonRead:
        head = "file read failed";
        break;
      case kReasonWrite:
        head = "file write failed";
        break;
      case kReasonRename:
        head = "file rename failed";
        break;
      case kReasonRemove:
        head = "file removal failed";
        break;
      case kReasonTruncate:
        head = "file truncation failed";
        break;
      case kReasonLocked:
        head = "file in use";
        break;
      case kReasonLink:
        head = "symbolic link refused";
        break;
      case kReasonJournal:
        head = "foreign rotation journal";
        break;
      case kReasonSpecial:
        head = "special file refused";
        break;
      case kReasonHardLink:
        head = "linked file refused";
        break;
      default:
        break;
    }
  }
  return std::string(head) + ": " + error.what();
}

}  // namespace adcdf
