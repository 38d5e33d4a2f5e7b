// The output generations: <base>.000 (current) to <base>.NNN (oldest kept).
//
// A new generation is started when a section's date moves to a later day. The rotation is
// decided and traced when the section's header is read (adcdf_rename_files), but carried out only
// when the section is committed: the oldest generation is removed, every other one moves up by
// one number (gaps stay where they are), and a new current generation takes the type-999 header
// record and the section's records.
//
// A rotation survives a crash at any point: the new generation is first written complete under
// a temporary name, the renames are recorded in a journal, and only then carried out, each one
// skipped when it is found done. recover(), at start-up, finishes a journalled rotation or
// discards one that had not begun. The temporary files (".<name>-rotation.*" beside the
// generations) exist only while a rotation runs.
//
// Only the current generation is ever open. Every file operation that fails throws AdcdfError;
// a generation that could not be moved out of the way is never emptied or overwritten, and an
// append that fails is cut back off the file.
#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "stream/section_output.h"
#include "support/files.h"
#include "support/trace.h"

namespace adcdf {

struct Context;

class Generations {
 public:
  Generations(std::string base, int maxgen);

  // "<base>.%03d"
  std::string name(int generation) const;

  // Finishes or discards a rotation that a crash interrupted.
  void recover();
  // Opens the current generation for appending, creating it empty when it is missing.
  void open_current();
  // Decides which files a rotation removes and renames, writing the debug lines for each name
  // looked at. Values of maxgen below 1 rotate as 1 does.
  RotationPlan plan(Tracer& trace) const;
  // Carries out a plan; the new current generation starts with `content`.
  void rotate(const RotationPlan& plan, std::string_view content);
  // Appends to the current generation.
  void append(std::string_view data);
  void close() { current_.close(); }

 private:
  using Steps = std::vector<std::pair<std::string, std::string>>;
  static void run_steps(const Steps& steps);

  std::string base_;
  int maxgen_;
  std::string fresh_;    // the new generation while it is written
  std::string doomed_;   // the oldest generation on its way out
  std::string journal_;  // the renames of the rotation in progress
  File current_;
  long long size_ = 0;  // what the current generation held after the last complete write
};

// The type-999 header record for a generation started at `now` on host `host`.
std::string header_record(std::time_t now, std::string_view host);

// Plans a rotation for the section in hand and puts the header record first in its output.
int adcdf_rename_files(Context& ctx);
// Puts the header record (today's date, this host) first in the section's output.
int adcdf_writeheaderrec(Context& ctx);

}  // namespace adcdf
