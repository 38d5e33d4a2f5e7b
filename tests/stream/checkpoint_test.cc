#include "stream/checkpoint.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "test_support.h"

namespace adcdf {
namespace {

using testing::TempDir;

struct PrefixCase {
  const char* line;
  int count;
  std::vector<long> values;  // the first `count` values
};

TEST(ParsePrefix, ReadsEightIntegersAsScanfDoes) {
  const PrefixCase cases[] = {
      {"105,126,3,5,14,30,5,1772721005,3,0,\"x\"\n", 8, {105, 126, 3, 5, 14, 30, 5, 1772721005}},
      {" 101,\t+126,\n-3,5,6,7,8,9", 8, {101, 126, -3, 5, 6, 7, 8, 9}},
      // The event time keeps 64 bits (times after 2038 stay positive); the others are cut to 32.
      {"1,2,3,4,5,6,7,100000000000000", 8, {1, 2, 3, 4, 5, 6, 7, 100000000000000}},
      {"4294967401,2,3,4,5,6,7,2147483648", 8, {105, 2, 3, 4, 5, 6, 7, 2147483648}},
      {"1,2,3,4,5,6,7,-86400", 8, {1, 2, 3, 4, 5, 6, 7, -86400}},
      // Beyond 64 bits the value clamps first, then is cut to 32 bits.
      {"99999999999999999999999,-99999999999999999999999", 2, {-1, 0}},
      {"1,2,3x,4", 3, {1, 2, 3}},
      {"1 ,2", 1, {1}},
      {"7,- 8", 1, {7}},
      {"+-5", 0, {}},
      {"", 0, {}},
  };
  for (const PrefixCase& c : cases) {
    SCOPED_TRACE(c.line);
    PrefixValues parsed = parse_prefix(c.line);
    ASSERT_EQ(parsed.count, c.count);
    for (int i = 0; i < c.count; ++i) EXPECT_EQ(parsed.values[static_cast<size_t>(i)], c.values[i]);
    EXPECT_EQ(parsed.complete(), c.count == 8);
  }
  EXPECT_TRUE(parse_prefix("999,126,3,5,0,0,0,0,\"host\"").is_header());
  EXPECT_FALSE(parse_prefix("999,126,3").is_header());
  EXPECT_FALSE(parse_prefix("105,126,3,5,0,0,0,0").is_header());
}

struct ReverseCase {
  const char* name;
  std::string text;
  long long complete_end;
  std::vector<std::string> lines;  // newest first
};

TEST(NewestRecord, SkipsHeadersUnparsableLinesAndTornTail) {
  const std::string header = "999,126,3,5,0,0,0,0,\"host\",0\n";
  const std::string older = "105,126,3,5,9,0,0,1772701200,1\n";
  const std::string newer = "106,126,3,5,10,0,0,1772704800,1\n";
  struct {
    std::string text;
    int event_time;  // 0: no record
  } cases[] = {
      {header + older + newer, 1772704800},
      {header + older + newer + "junk\n" + header, 1772704800},
      {older + "105,126,3,5,11,0,0\n", 1772701200},  // seven values only
      {header + older + "105,126,3,5,11,0,0,1772708400", 1772701200},
      {header, 0},
      {"105,126,3,5,11,0,0,1772708400", 0},
  };
  TempDir dir;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    dir.write("g", c.text);
    std::optional<PrefixValues> newest = newest_record(File::read_only(dir.file("g")));
    ASSERT_EQ(newest.has_value(), c.event_time != 0);
    if (newest) {
      EXPECT_EQ(newest->values[7], c.event_time);
    }
  }
}

}  // namespace
}  // namespace adcdf
