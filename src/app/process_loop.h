// The main loop: reads the audit file line by line between sections, hands each section to its
// converter, reports unknown sections, and commits what the sections produced (stream/commit.h).
#pragma once

#include "stream/context.h"

namespace adcdf {

// Starts the run (see stream/restart.h), then converts sections until a stop is requested.
// Prints the statistics in debug mode and closes the files.
void adcdf_process_file(Context& ctx);

}  // namespace adcdf
