// The daemon's state, shared by the section reader, the processing loop and the converters.
//
// One Context lives for a whole run. It holds the command-line settings, the current line and
// its number, the event time of the section in hand and of the last one, the checkpoint, the
// output not yet committed, how far the audit file has been handled and committed, and the
// generations, error and position files. The section counters live with the section table
// (convert/sections.h).
#pragma once

#include <string>
#include <string_view>

#include "stream/audit_input.h"
#include "stream/generations.h"
#include "stream/pending_output.h"
#include "stream/position.h"
#include "support/metrics.h"
#include "support/trace.h"

namespace adcdf {

struct Options {
  std::string audit_file;
  std::string output_base;
  int max_generations = 7;
  bool debug = false;
  bool upshift = true;
  bool noerr = false;
  bool once = false;    // stop at the end of the audit file
  std::string metrics;  // the metrics file (--metrics), or empty
};

// How far the processing loop has got: just after the last line it handled (a section with its
// blank line, an unknown-section line, a blank line between sections), and the last section's
// date then.
struct Handled {
  long long offset = 0;  // in the audit file being read
  int line = 1;          // the number the next line will carry
  LocalTime last;
};

// Adds `by` to a count, wrapping past the limits of int as a 32-bit counter does instead of
// overflowing: the line numbers and section counts of a daemon that runs for years.
constexpr void count_up(int& n, int by = 1) {
  n = static_cast<int>(static_cast<unsigned>(n) + static_cast<unsigned>(by));
}

struct Context {
  Context(Options opts, Tracer& tracer, AuditInput& audit)
      : options(std::move(opts)), trace(tracer), input(audit) {
    output.records_spill.set_directory(spill_directory);
    output.errors_spill.set_directory(spill_directory);
  }

  Options options;
  Tracer& trace;
  AuditInput& input;
  Generations generations{options.output_base, options.max_generations};
  // Where what a large section produces is kept while it does not fit in memory.
  const std::string spill_directory = directory_of(options.output_base);

  std::string_view line;
  int line_number = 0;
  EventTime event;
  LocalTime last;
  long checkpoint = 0;
  Metrics metrics;

  // Notes that everything read so far has been handled.
  void mark_handled() { handled = Handled{input.offset(), line_number, last}; }

  PendingOutput output;  // converted, not yet committed
  Handled handled;
  Handled committed;  // what the files hold: the handled lines up to the last commit
  Appender errlog;    // the error file (or /dev/null)
  PositionFile positions;
};

}  // namespace adcdf
