// Where a run starts, and how it records where it stands.
//
// At start the daemon takes the lock on <base>.POS, finishes a rotation a crash interrupted, and
// then resumes at the recorded position when it is valid: the audit file (or, when it was renamed
// away while the daemon was down, the file it was renamed to) begins with the recorded content and
// is at least as long as the recorded offset, <base>.000 is the recorded file and at least as
// long as recorded, and <base>.ERR too (unless the run has no error file; a position recorded
// without one does not do for a run with one). The output files are then cut back to the recorded
// sizes, which removes whatever a crash left after the position was taken (a torn record, part of
// a section, sections written again after the position), and the audit file is read from the
// recorded offset with the recorded line number, last date and checkpoint. So the output ends up
// as one uninterrupted run would have left it.
//
// Without a valid position the run starts afresh: the error file is emptied, a torn last line is
// cut off <base>.000, and the checkpoint is taken from its newest record (see checkpoint.h);
// sections older than the checkpoint are skipped.
//
// Positions are written: at start, before anything is appended; with every rotation (by the
// rotation itself, see generations.h); after commits at most about once a second (by the worker
// thread of position.h, while the daemon catches up); and, with the output synced first, before
// every wait at the end of the audit file when anything changed and at a normal stop. A position
// is written only after the output files it covers are on the disk, so after a power loss it may
// lag, which makes the restart convert more again, but never covers data that is not there. The
// start's position is durable (file and name) before any record it does not cover is synced (see
// position.h): a power cut that kept records but no position would have the next start fall back
// to the checkpoint and convert the newest second again. Cutting the files back and emptying the
// error file are synced with the records that follow: a power cut before that leaves them longer
// than recorded, which the restart cuts.
#pragma once

#include "stream/context.h"

namespace adcdf {

// Start-up: lock, recovery, then the position or the checkpoint; opens the error file and the
// current generation and writes the debug lines of start-up.
void start_run(Context& ctx);

// Sets the checkpoint and the last section's date from the output generations (see
// stream/checkpoint.h), cutting a torn last line off <base>.000.
void restore_checkpoint(Context& ctx);

// The position of what has been handled and committed, with the output files as they are now.
Position position_now(Context& ctx);

enum class PositionDue {
  kAfterCommit,  // the output synced in the background, a position when a second has passed
  kSettled,      // before a wait: now, when anything changed since the last one written
  kStop,         // at a stop: now
};
void keep_position(Context& ctx, PositionDue due);

}  // namespace adcdf
