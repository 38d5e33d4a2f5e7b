#include "stream/checkpoint.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace adcdf {
namespace {

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

}  // namespace
}  // namespace adcdf
