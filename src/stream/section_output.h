// Everything one section produces, held until the section is complete.
//
// Records, the error-file entries of its skipped lines, and the rotation (with the new
// generation's header record) to carry out before anything else is written. The processing loop
// commits it when the converter returns and drops it when the section is abandoned, so a stop or a
// crash never leaves part of a section in the files, and a section either rotates the generations
// together with its records or not at all.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace adcdf {

// The file operations of one rotation, decided (and traced) when the section header is read.
struct RotationPlan {
  std::optional<std::string> remove;                         // the oldest generation, if present
  std::vector<std::pair<std::string, std::string>> renames;  // from, to; highest first
  std::string header;                                        // the new generation's first record
};

struct SectionOutput {
  std::string records;
  std::string errors;
  std::optional<RotationPlan> rotation;

  bool empty() const { return records.empty() && errors.empty() && !rotation; }
  void clear() {
    records.clear();
    errors.clear();
    rotation.reset();
  }
};

}  // namespace adcdf
