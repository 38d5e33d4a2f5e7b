#include "support/tokenizer.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

namespace adcdf {
namespace {

std::vector<std::string> split(std::string_view text, std::string_view delimiters) {
  std::vector<std::string> words;
  Tokenizer tokens(text);
  while (auto word = tokens.next(delimiters)) words.emplace_back(*word);
  return words;
}

TEST(Tokenizer, SkipsRunsOfDelimitersAndKeepsOtherCharacters) {
  using Words = std::vector<std::string>;
  EXPECT_EQ(split("  a  b\tc \n", " "), (Words{"a", "b\tc", "\n"}));
  EXPECT_EQ(split("a b\nc\n", " \n"), (Words{"a", "b", "c"}));
  EXPECT_EQ(split("   ", " "), Words{});
  Tokenizer trailing("word \n");
  EXPECT_EQ(trailing.next(" "), "word");
  EXPECT_EQ(trailing.rest(), "\n");
  EXPECT_EQ(trailing.next(" \n"), std::nullopt);
}

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
