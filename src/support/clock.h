// A clock for deciding when to commit, cheap enough to read after every section.
//
// CLOCK_MONOTONIC_COARSE has the resolution of the kernel's tick (a few milliseconds), plenty for
// delays of tens of milliseconds and more, and costs a fraction of a fine clock reading. It runs
// with the same epoch as std::chrono::steady_clock on Linux.
#pragma once

#include <time.h>

#include <chrono>

namespace adcdf {

inline std::chrono::steady_clock::time_point coarse_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::chrono::steady_clock::time_point(std::chrono::seconds(now.tv_sec) +
                                               std::chrono::nanoseconds(now.tv_nsec));
}

}  // namespace adcdf
