// The main loop: follows the audit file, hands each section to its converter, and commits what
// the section produced (rotation, error entries, records) before reading on.
#pragma once

#include "stream/context.h"

namespace adcdf {

// Starts the run (see stream/restart.h), then converts sections until a stop is requested.
// Prints the statistics in debug mode and closes the files.
int adcdf_process_file(Context& ctx);

// Writes out what the section in hand produced: the rotation it asked for, its error-file
// entries, its records in one write.
void commit_section(Context& ctx);

}  // namespace adcdf
