// What the daemon counts for monitoring, beside the section counters of the statistics: the
// entries it writes into the error file by cause, the records written and the generations
// rotated, since this process started. app/metrics.h publishes them.
#pragma once

#include <cstdint>
#include <ctime>

namespace adcdf {

struct ErrorEntries {
  int64_t unknown_section = 0;   // a line that starts no known section
  int64_t skipped_line = 0;      // a line of a section that its converter does not know
  int64_t dropped_section = 0;   // a section cut short by a rotation of the audit file
  int64_t audit_data_lost = 0;   // audit data gone before it was read
  int64_t audit_unreadable = 0;  // something at the audit file's name that cannot be read
};

struct Metrics {
  ErrorEntries errors;
  int64_t records = 0;    // committed to the current generation
  int64_t rotations = 0;  // of the generations
  long last_event = 0;    // event time of the last converted section, seconds since 1970
  int64_t started = std::time(nullptr);
};

}  // namespace adcdf
