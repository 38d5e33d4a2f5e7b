#include "stream/generations.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "stream/header_record.h"
#include "test_support.h"

namespace adcdf {
namespace {

using testing::TempDir;
using testing::TraceCapture;

// Every file in the directory (hidden ones too), by its name after "b.", with its content.
std::map<std::string, std::string> files(const TempDir& dir) {
  std::map<std::string, std::string> found;
  for (const auto& [name, text] : dir.files("")) found[name.substr(2)] = text;
  return found;
}

struct RotationCase {
  const char* name;
  int maxgen;
  std::vector<std::string> present;  // suffixes; each file holds its own suffix
  std::string trace;                 // with @ for the base name; its start for 100
  std::map<std::string, std::string> after;
};

std::string with_base(std::string text, const std::string& base) {
  for (size_t at = 0; (at = text.find('@', at)) != std::string::npos; at += base.size()) {
    text.replace(at, 1, base);
  }
  return text;
}

TEST(Generations, RotationRemovesOldestAndShiftsTheRest) {
  const RotationCase cases[] = {
      {"7, gaps",
       7,
       {"000", "003"},
       "Attempting to remove: @.006\nLooking for: @.005\nLooking for: @.004\n"
       "Looking for: @.003\nAttempting to rename @.003 to @.004\n"
       "Looking for: @.002\nLooking for: @.001\n"
       "Looking for: @.000\nAttempting to rename @.000 to @.001\n",
       {{"000", ""}, {"001", "000"}, {"004", "003"}}},
      {"2",
       2,
       {"000", "001", "002"},
       "Attempting to remove: @.001\nLooking for: @.000\nAttempting to rename @.000 to @.001\n",
       {{"000", ""}, {"001", "000"}, {"002", "002"}}},
      {"1", 1, {"000", "001"}, "Attempting to remove: @.000\n", {{"000", ""}, {"001", "001"}}},
      {"0 rotates as 1", 0, {"000"}, "Attempting to remove: @.000\n", {{"000", ""}}},
      {"100 keeps up to 099",
       100,
       {"000", "098", "099"},
       "Attempting to remove: @.099\nLooking for: @.098\nAttempting to rename @.098 to @.099\n"
       "Looking for: @.097\n",
       {{"000", ""}, {"001", "000"}, {"099", "098"}}},
  };
  for (const RotationCase& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    const std::string base = dir.file("b");
    for (const std::string& suffix : c.present) dir.write("b." + suffix, suffix);
    const auto before = files(dir);
    TraceCapture trace;
    trace.tracer().set_debug(true);
    Generations generations(base, c.maxgen);
    RotationPlan plan = generations.plan(trace.tracer());
    const std::string expected_trace = with_base(c.trace, base);
    std::string text = trace.text();
    if (c.maxgen == 100) text.resize(std::min(text.size(), expected_trace.size()));
    EXPECT_EQ(text, expected_trace);
    EXPECT_EQ(files(dir), before) << "planning touches no file";
    TempDir elsewhere;
    PositionFile positions;
    positions.lock(elsewhere.file("b.POS"));
    plan.header = "new\n";
    Position at;
    at.offset = 77;
    generations.rotate(plan, at, positions);
    generations.close();
    auto expected = c.after;
    expected["000"] = "new\n";
    EXPECT_EQ(files(dir), expected);
    // The rotation records the position it was given, naming the new generation.
    at.current_id = file_id(base + ".000").value();
    at.current_size = 4;
    EXPECT_EQ(positions.newest(), at);
  }
}

TEST(HeaderRecord, CarriesLocalDateAtMidnightAndHost) {
  const std::string tail = "\",0,0,0,\"\",\"\",0,0,0,\"\",0,0,0,\"\",\"\"\n";
  const struct {
    const char* tz;
    std::string expected;
  } cases[] = {
      {"JST-9", "999,126,3,6,0,0,0,0,\"mailhost" + tail},
      {"EST5", "999,126,3,5,0,0,0,0,\"mailhost" + tail},
      {"UTC", "999,126,3,5,0,0,0,0,\"mailhost" + tail},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tz);
    ::setenv("TZ", c.tz, 1);
    ::tzset();
    EXPECT_EQ(header_record(1772753400, "mailhost"), c.expected);  // 2026-03-05 23:30 UTC
  }
}

}  // namespace
}  // namespace adcdf
