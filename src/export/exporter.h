// One export run: the generations of a base, oldest first, from where the target's memory of
// each one ends to its last complete line, into the target, committed at once.
//
// Rejected lines go to the rejects file as they are met and are synced before the target
// commits. A run that fails before its commit cuts them back off; one killed there leaves them,
// and the next run lists them again, so a rejected line is never lost but may be listed twice.
#pragma once

#include <csignal>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "export/target.h"
#include "support/files.h"

namespace adcdf::exporter {

struct Totals {
  int64_t records = 0;         // rows written
  int64_t rejected = 0;        // lines no layout splits in exactly one way
  int64_t bytes = 0;           // bytes of the lines read
  int64_t generations = 0;     // generations that had new lines
  bool no_generation = false;  // the base has no generation (yet)
  Totals operator+(const Totals& b) const {
    return {records + b.records, rejected + b.rejected, bytes + b.bytes,
            generations + b.generations, no_generation};
  }
};

// How one generation compares with the rows of it in the target.
struct Verified {
  std::string name;     // of its file
  int64_t id = 0;       // its number in the target, 0 when not loaded
  int64_t records = 0;  // records in the loaded part of the file
  int64_t rejected = 0;
  Origins expected;  // what the records give
  Origins found;     // what the target holds
};

class Exporter {
 public:
  // `rejects`: the file rejected lines are appended to, or empty. `wait`: a base without
  // generations is not (yet) an error. `stop`: set by a signal; a run that sees it abandons
  // what it wrote. Throws AdcdfError.
  Exporter(std::string base, const std::string& rejects, bool wait,
           const volatile std::sig_atomic_t& stop);

  // Loads into `target` what the daemon wrote since the last run. `progress` is called after
  // every block read with the run's totals so far. Returns the run's totals; throws
  // AdcdfError.
  Totals run(Target& target, const std::function<void(const Totals&)>& progress);

  // Reads the generations again up to where the target has loaded them and compares.
  std::vector<Verified> verify(Target& target);

 private:
  std::string base_;
  std::string source_;
  bool keep_rejects_;
  Appender rejects_;
  bool wait_;
  const volatile std::sig_atomic_t& stop_;
};

}  // namespace adcdf::exporter
