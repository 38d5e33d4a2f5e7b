// The output generations: <base>.000 (current) to <base>.NNN (oldest kept).
//
// A new generation is started when a section's date moves to a later day. The rotation is
// decided and traced when the section's header is read (section_reader.h), but carried out only
// when the section is committed: the oldest generation is removed, every other one moves up by
// one number (gaps stay where they are), and a new current generation starts with the type-999
// header record. The section's records are then appended to it like any others.
//
// A rotation survives a crash or a power cut at any point, and always agrees with the position
// file:
//   1. the start position is durable (see position.h) and the old current generation is synced,
//      so the position that follows covers it;
//   2. the new generation is written, header record only, under a temporary name and synced,
//      and its name made durable by a sync of the directory;
//   3. a journal lists the renames and the position that names the new generation (at the
//      rotating section's name line, with that section's date), and is synced, name too;
//   4. the renames run, each one skipped when it is found done (no step moves onto a name that
//      still holds a generation, so a done step and a pending one can be told apart), and each
//      made durable by a directory sync before the next;
//   5. the position is written to the position file and synced; the journal is removed and the
//      removal made durable, and only then the oldest generation (moved aside by the first step);
//      the next rotation's directory syncs come before its first rename.
// A crash or power cut before the journal is durable leaves the generations untouched and the
// previous position valid; the journal may then be missing, empty, zero-filled or torn, and is
// discarded as incomplete (decided before any name in it is read): the restart converts the
// section again and rotates again. Once it is durable, recover() at start-up finishes the rotation,
// runs the remaining renames and writes the journal's position. Under ext4's ordered mode a power
// cut keeps the names in the order they were made, so it leaves one of the states a crash of the
// process leaves; where only fsync counts, a name not yet covered by a directory sync may be lost
// on its own, and the sync after each step is what keeps every such state one of those. The
// temporary files (".<name>-rotation.*" beside the generations) exist only while a rotation runs.
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

#include "stream/output_names.h"
#include "stream/pending_output.h"
#include "stream/position.h"
#include "support/files.h"
#include "support/trace.h"

namespace adcdf {

class Generations {
 public:
  Generations(std::string base, int maxgen);

  const OutputNames& names() const { return names_; }
  std::string name(int generation) const { return names_.generation(generation); }

  // Finishes a rotation that a crash interrupted after its journal was complete, recording its
  // position in `positions`, or discards one that had not begun (its journal incomplete). A
  // complete journal that names any file but this base name's generations and side files is
  // refused (AdcdfError): nothing is moved.
  void recover(PositionFile& positions);
  // Opens the current generation for appending, creating it empty when it is missing.
  void open_current();
  // Decides which files a rotation removes and renames, writing the debug lines for each name
  // looked at. Values of maxgen below 1 rotate as 1 does.
  RotationPlan plan(Tracer& trace) const;
  // Carries out a plan. `at` is the position just before the rotating section, with that
  // section's date; its current generation is filled in here and it is written to `positions`.
  void rotate(const RotationPlan& plan, Position at, PositionFile& positions);
  Appender& current() { return current_; }
  void close() { current_.close(); }

  using Steps = std::vector<std::pair<std::string, std::string>>;

 private:
  // Runs the renames still pending, records `at` durably and removes the side files.
  void finish(const Steps& steps, const Position& at, PositionFile& positions);
  void remove_side_files();

  OutputNames names_;
  int maxgen_;
  Appender current_;
};

}  // namespace adcdf
