// Splits a CDF line into its values with the layout of its record type.
//
// Values are written without escaping, so a quoted value may hold commas and double quotes and
// a bare one commas. A line is split every way its layout allows: each quoted column between a
// double quote at either end, no value longer than its column's width, a constant column
// holding its constant and a number the daemon formats itself a plain integer. A line with
// exactly one such split is split that way (when its comma count is the layout's, that is the
// split at its commas); a line with none or several is rejected.
#pragma once

#include <array>
#include <string_view>
#include <vector>

#include "convert/catalogue.h"

namespace adcdf::exporter {

class Splitter {
 public:
  Splitter();

  // The record type of `line` (without its line feed) with its values, quotes removed, in
  // `values`; null when the line is no record that its layout splits in exactly one way.
  const RecordType* split(std::string_view line, std::vector<std::string_view>& values);

 private:
  struct Step {
    int start;  // the comma the column starts after, -1 for the start of the line
    int ways;   // splits of the line up to here, counted up to 2
    int from;   // the previous column's start, when ways is 1
  };
  bool search(std::string_view line, const RecordType& type, std::vector<std::string_view>& values);

  std::array<const RecordType*, kRecordTypeLimit> by_type_{};
  std::array<size_t, kRecordTypeLimit> longest_{};  // the longest line each type can have
  std::vector<int> commas_;
  std::vector<std::vector<Step>> steps_;  // per column, the ways it can start
  std::vector<Step> next_;                // per comma, the ways the next column can start
};

}  // namespace adcdf::exporter
