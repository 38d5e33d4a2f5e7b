// Committing what the converted sections produced.
//
// A commit appends the pending error-file entries to <base>.ERR (one write, when there are any),
// then the pending records to <base>.000 (one write), and then has a position recorded when one is
// due (see restart.h). It holds whole sections only (but see below). While the audit file holds
// more than has been converted, sections accumulate and are committed together: when the pending
// output reaches kCommitBytes, when the oldest pending section has waited kCommitDelay (also while
// a long section is being converted), before the daemon waits for more input, before a rotation and
// at a stop. Following a file at the pace it is written, every section is committed as soon as it
// is complete, since the daemon then waits for more.
//
// A crash between the writes of a commit, or before the position that covers them, leaves the
// files longer than the recorded position: the restart cuts them back and converts those sections
// again, so nothing is lost and nothing doubled. A power cut keeps what the worker of position.h
// synced: the restart resumes at the newest durable position, which never covers more.
//
// A section whose output outgrows memory is the one exception to whole sections per commit: it
// reaches the files in several writes (see write_section_part()), but only once it has been
// read to its blank line, and no position is recorded until all of it is written. A crash or a
// power cut in between leaves part of it after the recorded position, which the restart cuts
// off; so after any stop, crash or power cut a section is in the output whole or not at all.
#pragma once

#include <chrono>

#include "stream/context.h"

namespace adcdf {

inline constexpr size_t kCommitBytes = 256 * 1024;
inline constexpr std::chrono::milliseconds kCommitDelay{50};

// Commits what is pending, whatever its size; the handled lines count as committed from then on.
void commit_output(Context& ctx);

// After a section (or a line between sections) was handled: commits when the pending output is
// large enough or has waited long enough.
void commit_when_due(Context& ctx);
// Inside a long section (every 1024 of its lines): commits the complete sections before it
// when the oldest has waited long enough.
void commit_when_late(Context& ctx);

// Keeps what the section in hand produces within the pending output's section_limit: once it
// holds more, the complete sections before it are committed, and its output so far leaves
// memory. While the section is being read (a stop or a rotation of the audit file may still
// take it back), into the spill files; once it has been read to its blank line
// (`read_whole`), into the output files, by write_section_part().
void bound_section_output(Context& ctx, bool read_whole);

// The section in hand has been read to its blank line (nothing can take it back any more) and
// its output is large: commits the complete sections before it, carries out the rotation it
// asked for, and writes its error entries and then its records so far (from the spill files,
// then from memory). No position is recorded until the section is whole in the files: a crash
// before that leaves part of it after the recorded position, which the restart cuts off, so
// after any stop, crash or power cut a section is in the output whole or not at all.
void write_section_part(Context& ctx);

// Carries out the rotation the completed section in hand asked for. Its records then begin the
// new generation with the next commit.
void rotate_for_section(Context& ctx);

}  // namespace adcdf
