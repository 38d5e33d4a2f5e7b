// Converting one section in memory, for the converter tests.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "test_support.h"

namespace adcdf::testing {

// A last date no section can be later than, so converting does not start a generation.
constexpr LocalTime kNoRotation{1000, 13, 32, 0, 0, 0};
constexpr long kTime = 1364913005;  // 2013-04-02 14:30:05 UTC

struct Converted {
  std::string records;
  std::string errors;
};

// Converts one section with header time kTime and keyword lines `body` (ending with its blank
// line), as the first section of the file: its keyword lines are numbered from 3. Checks that
// the converter stops right after the blank line.
inline Converted convert(std::string_view section, const std::string& body) {
  ::setenv("TZ", "UTC", 1);
  ::tzset();
  Harness h("hdr " + std::to_string(kTime) + "\n" + body + "after\n");
  h.ctx.last = kNoRotation;
  h.ctx.giLineno = 1;
  EXPECT_EQ(h.convert(section), 0);
  EXPECT_EQ(h.input.read_line().value_or("<end>"), "after\n");
  return {std::string(h.ctx.output.records.view()), std::string(h.ctx.output.errors.view())};
}

// A record of the section converted by convert(): its type, the event's columns, `columns`.
inline std::string rec(int type, const std::string& columns) {
  return std::to_string(type) + ",113,4,2,14,30,5,1364913005," + columns + "\n";
}

inline std::string skipped(int lineno, const std::string& line) {
  return "Skipped line: " + std::to_string(lineno) + "\nLine = " + line + "\n\n";
}

}  // namespace adcdf::testing
