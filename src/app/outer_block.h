// The daemon from start to stop: argument check, parsing, set-up, the processing loop, and the
// outer block that turns a fatal error into the "adcdf error:" line and exit status 1.
#pragma once

namespace adcdf {

// Returns the process's exit status.
int run_daemon(int argc, char** argv);

}  // namespace adcdf
