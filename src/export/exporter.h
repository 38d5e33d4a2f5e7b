// One export run: the generations of a base, oldest first, from where the target's memory of
// each one ends to its last complete line, into the target, committed at once.
#pragma once

#include <csignal>
#include <cstdint>
#include <functional>
#include <string>

#include "export/target.h"

namespace adcdf::exporter {

struct Totals {
  int64_t records = 0;      // rows written
  int64_t rejected = 0;     // lines no layout splits in exactly one way
  int64_t bytes = 0;        // bytes of the lines read
  int64_t generations = 0;  // generations that had new lines
};

class Exporter {
 public:
  // `rejects`: the file rejected lines are appended to, or empty. `wait`: a base without
  // generations is not (yet) an error. `stop`: set by a signal; a run that sees it abandons
  // what it wrote. Throws ExportError when the base cannot be read.
  Exporter(std::string base, std::string rejects, bool wait,
           const volatile std::sig_atomic_t& stop);

  // Loads into `target` what the daemon wrote since the last run. `progress` is called after
  // every block read with the run's totals so far. Returns the run's totals; throws
  // ExportError.
  Totals run(Target& target, const std::function<void(const Totals&)>& progress);

 private:
  std::string base_;
  std::string source_;
  std::string rejects_;
  bool wait_;
  const volatile std::sig_atomic_t& stop_;
};

// Thrown by run() when `stop` was set; nothing of the run was committed.
struct Interrupted {};

}  // namespace adcdf::exporter
