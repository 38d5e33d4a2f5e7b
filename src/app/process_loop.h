// The main loop: follows the audit file, hands each section to its converter, and commits what
// the section produced (rotation, records, error entries) before reading on.
#pragma once

#include "stream/context.h"

namespace adcdf {

// Opens the error file and the current generation, takes the checkpoint, then converts sections
// until a stop is requested. Prints the statistics in debug mode and closes the files.
int adcdf_process_file(Context& ctx);

// Sets the checkpoint and the last section's date from the output generations (see
// stream/checkpoint.h), cutting a torn last line off <base>.000.
void restore_checkpoint(Context& ctx);

// Writes out what the section in hand produced: its error-file entries, the rotation it asked
// for, its records in one write.
void commit_section(Context& ctx);

}  // namespace adcdf
