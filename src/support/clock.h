// A clock for deciding when to commit, cheap enough to read after every section.
//
// CLOCK_MONOTONIC_COARSE has the resolution of the kernel's tick (a few milliseconds), plenty for
// delays of tens of milliseconds and more, and costs a fraction of a fine clock reading. It runs
// with the same epoch as std::chrono::steady_clock on Linux.
//
// A test may set `clock_for_tests` to a clock of its own, so that what depends on time passing
// (the commit delay) can be driven step by step; the daemon never sets it, and the check is one
// load of a null pointer.
#pragma once

#include <time.h>

#include <chrono>

namespace adcdf {

inline std::chrono::steady_clock::time_point (*clock_for_tests)() = nullptr;

inline std::chrono::steady_clock::time_point coarse_now() {
  if (clock_for_tests != nullptr) return clock_for_tests();
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::chrono::steady_clock::time_point(std::chrono::seconds(now.tv_sec) +
                                               std::chrono::nanoseconds(now.tv_nsec));
}

}  // namespace adcdf
