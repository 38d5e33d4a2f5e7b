#include "stream/section_reader.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "support/signals.h"
#include "test_support.h"

namespace adcdf {
namespace {

using testing::Harness;
using testing::kNoRotation;
using testing::TempDir;

class SectionReader : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    options.output_base = dir.file("out");
  }
  void TearDown() override { new_generation_requested = 0; }

  TempDir dir;
  Options options;
};

using enum Header;

struct HeaderCase {
  const char* name;
  std::string audit;  // from the header line on
  Header result;
  std::string trace;  // after the entry line; the exit line follows when the section converts
  int lineno;
  const char* next;  // the line the loop would read next
};

TEST_F(SectionReader, HeaderLineDecodingAndSkipping) {
  const HeaderCase cases[] = {
      {"time with newline", "h 1700000000\nk v\n\nnext\n", kConvert,
       "pstr = 1700000000\n\nldate = 1700000000\n", 1, "k v\n"},
      {"blank second word", "header \nk v\n\nnext\n", kConvert, "pstr = \n\nldate = 0\n", 1,
       "k v\n"},
      {"tab is no separator", "h\tx 5\n\n", kConvert, "pstr = 5\n\nldate = 5\n", 1, "\n"},
      {"sign and trailing junk", "  h   +42abc more\n\n", kConvert, "pstr = +42abc\nldate = 42\n",
       1, "\n"},
      {"no second word", "header\nk v\n\nnext\n", kSkip, "pstr = (null)\n", 3, "next\n"},
      {"blank header", "\nk v\n\nnext\n", kSkip, "", 1, "k v\n"},
      {"clamped high, localtime fails", "h 99999999999999999999\nk v\n\nnext\n", kSkip,
       "pstr = 99999999999999999999\n\nldate = 9223372036854775807\n", 3, "next\n"},
      {"clamped low, localtime fails", "h -99999999999999999999 x\n\nnext\n", kSkip,
       "pstr = -99999999999999999999\nldate = -9223372036854775808\n", 2, "next\n"},
      {"NUL line ends the skip", std::string("h\nk v\n\0junk\nnext\n", 17), kSkip,
       "pstr = (null)\n", 3, "next\n"},
  };
  for (const HeaderCase& c : cases) {
    SCOPED_TRACE(c.name);
    options.debug = true;
    Harness h(c.audit, options);
    h.ctx.last = kNoRotation;
    EXPECT_EQ(h.convert(adcdf_get_generic), c.result);
    EXPECT_EQ(h.trace.text(), "-> adcdf_get_generic\n" + c.trace +
                                  (c.result == kConvert ? "<- adcdf_get_generic\n" : ""));
    EXPECT_EQ(h.ctx.line_number, c.lineno);
    EXPECT_EQ(h.input.read_line().value_or("<none>"), c.next);
    if (c.result == kSkip) {
      EXPECT_TRUE(h.ctx.last == kNoRotation);
    }
    EXPECT_TRUE(h.ctx.output.complete_size() == 0 && !h.ctx.output.rotation);
  }
}

std::time_t utc(int year, int month, int day, int hour = 12) {
  struct tm t {};
  t.tm_year = year - 1900;
  t.tm_mon = month - 1;
  t.tm_mday = day;
  t.tm_hour = hour;
  return timegm(&t);
}

TEST_F(SectionReader, DayChangeComparesYearMonthDayEachOnItsOwn) {
  const struct {
    const char* name;
    LocalTime last;
    std::time_t event;
    bool rotates;
  } cases[] = {
      {"year", {125, 12, 31, 23, 0, 0}, utc(2026, 1, 1), true},
      {"month", {126, 1, 31, 23, 0, 0}, utc(2026, 2, 1), true},
      {"day 15 > 10, earlier month", {126, 3, 10, 0, 0, 0}, utc(2026, 2, 15), true},
      {"month 12 > 1, earlier year", {127, 1, 1, 0, 0, 0}, utc(2026, 12, 1), true},
      {"same day, later hour", {126, 5, 20, 10, 0, 0}, utc(2026, 5, 20, 15), false},
      {"earlier day", {126, 5, 21, 0, 0, 0}, utc(2026, 5, 20), false},
      {"earlier whole date", {126, 6, 21, 0, 0, 0}, utc(2026, 5, 20), false},
  };
  dir.write("out.000", "old\n");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Harness h("h " + std::to_string(c.event) + "\n\n", options);
    h.ctx.last = c.last;
    ASSERT_EQ(h.convert(adcdf_get_generic), kConvert);
    EXPECT_EQ(h.ctx.output.rotation.has_value(), c.rotates);
    if (c.rotates) {
      EXPECT_TRUE(h.ctx.output.rotation->header.starts_with("999,"));
    }
    // A rotation is only planned; the section's commit carries it out.
    EXPECT_EQ(dir.read("out.000"), "old\n");
    EXPECT_FALSE(dir.exists("out.001"));
    EXPECT_TRUE(h.ctx.last == static_cast<const LocalTime&>(h.ctx.event));
  }
}

TEST_F(SectionReader, NewGenerationRequestRotatesAtNextDatedSection) {
  const std::string dated = "h 1700000000\n";  // converted: its converter reads the rest
  Harness h("h\n\nh 99999999999999999999\n\n" + dated + dated, options);
  h.ctx.last = LocalTime{123, 11, 14, 0, 0, 0};  // same day: no rotation of its own
  new_generation_requested = 1;
  // Headers without a usable time leave the request pending.
  EXPECT_EQ(h.convert(adcdf_get_generic), kSkip);
  EXPECT_EQ(h.convert(adcdf_get_generic), kSkip);
  EXPECT_FALSE(h.ctx.output.rotation);
  EXPECT_EQ(new_generation_requested, 1);
  EXPECT_EQ(h.convert(adcdf_get_generic), kConvert);
  EXPECT_TRUE(h.ctx.output.rotation);
  EXPECT_EQ(new_generation_requested, 0);
  h.ctx.output.rotation.reset();
  EXPECT_EQ(h.convert(adcdf_get_generic), kConvert);
  EXPECT_FALSE(h.ctx.output.rotation);
}

}  // namespace
}  // namespace adcdf
