#include "stream/generations.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "stream/header_record.h"
#include "support/error.h"
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

// A restart recovers the rotation a journal records when it is complete, discards it when it is
// not (a power cut tore it, zero-filled it or cut it short: its renames had not begun), whatever
// names it holds, and refuses a complete journal naming files of another base name.
TEST(Generations, RecoveryFinishesACompleteJournalAndDiscardsAnIncompleteOne) {
  enum Outcome { kFinished, kDiscarded, kRefused };
  TempDir dir;
  const std::string base = dir.file("b"), fresh = dir.file(".b-rotation.new");
  Position at;
  at.offset = 77;
  auto journal = [&](const std::string& position, const std::string& to, const char* end) {
    return position + '\0' + base + ".000" + '\0' + to + '\0' + fresh + '\0' + base + ".000" +
           '\0' + end;
  };
  const std::string slot = encode_position(at, 0), good = journal(slot, base + ".001", "end");
  std::string bad_check = slot;
  bad_check[30] ^= 1;
  std::string zero_page = good;
  std::fill_n(zero_page.begin(), slot.size() + 20, '\0');
  const struct {
    const char* name;
    std::string text;
    Outcome outcome;
  } cases[] = {
      {"complete", good, kFinished},
      {"torn", good.substr(0, good.size() - 12), kDiscarded},
      {"zero-filled", std::string(good.size(), '\0'), kDiscarded},
      {"zero-filled but its end", zero_page, kDiscarded},
      {"end marker missing", journal(slot, base + ".001", ""), kDiscarded},
      {"position failing its check", journal(bad_check, base + ".001", "end"), kDiscarded},
      {"a name empty", journal(slot, "", "end"), kDiscarded},
      {"foreign name, incomplete", journal(slot, "/etc/passwd", ""), kDiscarded},
      {"foreign name", journal(slot, "/etc/passwd", "end"), kRefused},
  };
  const std::map<std::string, std::string> kAfter[] = {
      {{"000", "new\n"}, {"001", "old\n"}},
      {{"000", "old\n"}},
      {{"000", "old\n"}, {"-rotation.new", "new\n"}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    dir.write("b.000", "old\n");
    dir.write(".b-rotation.new", "new\n");
    dir.write(".b-rotation.journal", c.text);
    PositionFile positions;
    positions.lock(dir.file("b.POS"));
    std::string error;
    try {
      Generations(base, 7).recover(positions);
    } catch (const AdcdfError& e) {
      error = std::to_string(e.reason()) + " " + e.what();
    }
    auto after = files(dir);
    after.erase("-rotation.journal");
    EXPECT_EQ(after, kAfter[c.outcome]);
    EXPECT_EQ(dir.exists(".b-rotation.journal"), c.outcome == kRefused);
    EXPECT_EQ(error, c.outcome != kRefused
                         ? ""
                         : "11 " + dir.file(".b-rotation.journal") +
                               " names /etc/passwd, not a file of this base name");
    EXPECT_EQ(positions.newest().has_value(), c.outcome == kFinished);
    std::filesystem::remove(dir.file("b.POS"));
    for (const auto& [name, text] : dir.files("")) std::filesystem::remove(dir.file(name));
  }
}

// The newest position is the readable slot with the higher sequence number: a slot torn by a
// power cut (cut short, a byte changed, zero-filled) leaves the other.
TEST(PositionFile, NewestReadableSlotWins) {
  enum Tear { kWhole, kCut, kChanged, kZeroed };
  const struct {
    const char* name;
    uint64_t sequence[2];
    Tear tear[2];
    std::optional<long long> offset;  // of the position read: slot n holds offset n + 1
  } cases[] = {
      {"higher sequence in the first slot", {3, 2}, {kWhole, kWhole}, 1},
      {"higher sequence in the second slot", {1, 2}, {kWhole, kWhole}, 2},
      {"newer cut short: the older", {1, 2}, {kWhole, kCut}, 1},
      {"newer failing its check: the older", {3, 2}, {kChanged, kWhole}, 2},
      {"both torn: none", {1, 2}, {kZeroed, kChanged}, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    std::string text(PositionFile::kPidLine, ' ');
    for (int i = 0; i < 2; ++i) {
      Position p;
      p.offset = i + 1;
      std::string slot = encode_position(p, c.sequence[i]);
      if (c.tear[i] == kCut) slot.resize(slot.size() / 2);
      if (c.tear[i] == kChanged) slot[40] ^= 1;
      if (c.tear[i] == kZeroed) slot.assign(slot.size(), '\0');
      slot.resize(PositionFile::kSlot, ' ');
      text += slot;
    }
    dir.write("b.POS", text);
    PositionFile positions;
    positions.lock(dir.file("b.POS"));
    EXPECT_EQ(positions.newest() ? std::optional(positions.newest()->offset) : std::nullopt,
              c.offset);
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
