#include "support/tokenizer.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace adcdf {
namespace {

TEST(ParseLong, BehavesLikeAtolWithClamping) {
  const std::pair<std::string, long> cases[] = {
      {"  \t\n+42", 42},
      {"-17", -17},
      {"007", 7},
      {"12abc", 12},
      {"3 4", 3},
      {"", 0},
      {"- 5", 0},
      {"--1", 0},
      {"0x10", 0},
      {"9223372036854775808", LONG_MAX},
      {"-9223372036854775807", -LONG_MAX},
      {"-9223372036854775809", LONG_MIN},
  };
  for (const auto& [text, value] : cases) {
    SCOPED_TRACE(text);
    EXPECT_EQ(parse_long(text), value);
  }
}

}  // namespace
}  // namespace adcdf
