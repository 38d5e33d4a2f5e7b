// The daemon's metrics file (--metrics FILE): written at start, every few seconds while the
// daemon runs (after a section or before it waits for more of the audit file) and at a stop, in
// the node exporter's textfile format (support/textfile.h).
//
// A metrics file that cannot be written does not stop the conversion: the records come first.
// The next write tries again; a stale file shows in the node exporter's
// node_textfile_mtime_seconds.
#pragma once

#include <chrono>
#include <string>

#include "convert/sections.h"
#include "stream/context.h"

namespace adcdf {

inline constexpr std::chrono::seconds kMetricsEvery{5};

// The textfile text of the daemon's figures now.
std::string metrics_text(Context& ctx, const Counters& counters);

class MetricsFile {
 public:
  MetricsFile(Context& ctx, const Counters& counters) : ctx_(ctx), counters_(counters) {}
  // Writes the file now (nothing without --metrics).
  void write();
  // Writes it when kMetricsEvery has passed since the last write.
  void write_when_due();

 private:
  Context& ctx_;
  const Counters& counters_;
  std::chrono::steady_clock::time_point written_{};
};

}  // namespace adcdf
