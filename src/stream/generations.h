// The output generations: <base>.000 (current) to <base>.NNN (oldest kept).
//
// A new generation is started when a section's date moves to a later day. The rotation is
// decided and traced when the section's header is read (adcdf_rename_files), but carried out only
// when the section is committed: the oldest generation is removed, every other one moves up by
// one number (gaps stay where they are), and a new current generation opens, starting with the
// type-999 header record that the section's records follow in the same write.
//
// Only the current generation is ever open. Every file operation that fails throws AdcdfError;
// a generation that could not be moved out of the way is never emptied or overwritten.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

#include "stream/section_output.h"
#include "support/files.h"
#include "support/trace.h"

namespace adcdf {

struct Context;

class Generations {
 public:
  Generations(std::string base, int maxgen) : base_(std::move(base)), maxgen_(maxgen) {}

  // "<base>.%03d"
  std::string name(int generation) const;

  // Opens the current generation for appending, creating it empty when it is missing.
  void open_current();
  // Decides which files a rotation removes and renames, writing the debug lines for each name
  // looked at. Values of maxgen below 1 rotate as 1 does.
  RotationPlan plan(Tracer& trace) const;
  // Carries out a plan and opens a new, empty current generation.
  void rotate(const RotationPlan& plan);
  // Appends to the current generation.
  void append(std::string_view data) { current_.write_all(data); }
  void close() { current_.close(); }

 private:
  std::string base_;
  int maxgen_;
  File current_;
};

// The type-999 header record for a generation started at `now` on host `host`.
std::string header_record(std::time_t now, std::string_view host);

// Plans a rotation for the section in hand and puts the header record first in its output.
int adcdf_rename_files(Context& ctx);
// Appends the header record (today's date, this host) to the section's output.
int adcdf_writeheaderrec(Context& ctx);

}  // namespace adcdf
