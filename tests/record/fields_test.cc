#include "record/fields.h"

#include <gtest/gtest.h>

#include <string>

#include "test_support.h"

namespace adcdf {
namespace {

using testing::TraceCapture;

// Field rules over a captured trace.
struct Rules {
  explicit Rules(bool upshift = true, bool debug = false) : rules{capture.tracer(), upshift} {
    capture.tracer().set_debug(debug);
  }
  TraceCapture capture;
  FieldRules rules;
};

std::string rep(char c, size_t n) {
  return std::string(n, c);
}

// A line, the word position, the destination's limit and the value expected.
struct ValueCase {
  std::string line;
  int pos;
  size_t limit;
  std::string expected;
};

TEST(GetItem, TakesOneWordCutToItsLimit) {
  const ValueCase cases[] = {
      {"subject Hello world\n", 2, 80, "Hello"},
      {"subject  Hello\n", 2, 80, "Hello"},
      {"type 1 2\n", 3, 80, "2"},
      {"type  1   2\n", 3, 80, "2"},
      {"type 1 2", 3, 80, "2"},
      {"code a\tb c\n", 2, 80, "a\tb"},
      {"code a\\\\b\n", 2, 80, "a\\\\b"},
      {"subject\n", 2, 80, ""},
      {"subject \n", 2, 80, ""},
      {"type 1\n", 3, 80, ""},
      {"subject Hello\n", 1, 80, "subject Hello\n"},
      {"subject Hello\n", 1, 4, "subj"},
      {"count 123456\n", 2, 4, "1234"},
      {"count 1234\n", 2, 4, "1234"},
  };
  for (const ValueCase& c : cases) {
    SCOPED_TRACE(c.line + " pos " + std::to_string(c.pos));
    Rules r;
    std::string dest = "old";
    adcdf_get_item(r.rules, c.line, c.pos, dest, c.limit);
    EXPECT_EQ(dest, c.expected);
  }
}

// Shared by adcdf_get_varstring and adcdf_get_varstring_sz, which differ only in how the limit
// is passed.
const ValueCase kValueCases[] = {
    {"subject Hello world\n", 2, 1000, "Hello world"},
    {"subject  Hello \n", 2, 1000, " Hello "},
    {"subject Hello", 2, 1000, "Hello"},
    {"subject a\tb\n", 2, 1000, "a\tb"},
    {"subject\n", 2, 1000, ""},
    {"subject \n", 2, 1000, ""},
    {"type 1 rest of it\n", 3, 1000, "rest of it"},
    {"type 1  two\n", 3, 1000, " two"},
    {"subject Hello world\n", 1, 1000, "subject Hello world\n"},
    {"subject Hello world\n", 1, 5, "subje"},
    {"subject a\\b\n", 2, 1000, "ab"},
    {"subject a\\\\b\n", 2, 1000, "a\\b"},
    {"subject a\\\\\\\\b\n", 2, 1000, "a\\\\b"},
    {"subject ab\\\n", 2, 1000, "ab"},
    {"subject ab\\\\\n", 2, 1000, "ab\\"},
    {"subject \\\\\\\n", 2, 1000, "\\"},
    // The raw value is cut first, then its escapes are removed.
    {"subject abcd\\\\ef\n", 2, 5, "abcd"},
    {"subject a\\bcdef\n", 2, 4, "abc"},
    {"subject abcd\n", 2, 4, "abcd"},
    {"subject " + rep('v', 300) + "\n", 2, 257, rep('v', 257)},
};

TEST(GetVarstring, TakesRestOfLineCutThenUnescaped) {
  for (const ValueCase& c : kValueCases) {
    SCOPED_TRACE(c.line + " pos " + std::to_string(c.pos));
    Rules r;
    std::string dest = "old";
    adcdf_get_varstring(r.rules, c.line, c.pos, dest, c.limit);
    EXPECT_EQ(dest, c.expected);
    dest = "old";
    adcdf_get_varstring_sz(r.rules, c.line, c.pos, dest, static_cast<int>(c.limit));
    EXPECT_EQ(dest, c.expected);
  }
}

TEST(GetVarstringMta, KeepsEveryBackslash) {
  const ValueCase cases[] = {
      {"mta  x y \n", 2, 1000, " x y "},   {"mta a\\b\n", 2, 1000, "a\\b"},
      {"mta a\\\\b\n", 2, 1000, "a\\\\b"}, {"mta ab\\\n", 2, 1000, "ab\\"},
      {"mta abcdef\n", 2, 3, "abc"},       {"mta a b\n", 1, 1000, "mta a b\n"},
  };
  for (const ValueCase& c : cases) {
    SCOPED_TRACE(c.line);
    Rules r;
    std::string dest = "old";
    adcdf_get_varstring_mta(r.rules, c.line, c.pos, dest, c.limit);
    EXPECT_EQ(dest, c.expected);
  }
}

TEST(GetAddress, UnescapesTwiceUpshiftsAndAppendsBlank) {
  struct Case {
    std::string line;
    bool upshift;
    size_t limit;
    std::string expected;
  };
  const Case cases[] = {
      {"originator john.smith/sales\n", true, 850, "JOHN.SMITH/SALES "},
      {"originator john.smith/sales\n", false, 850, "john.smith/sales "},
      {"originator\n", true, 850, " "},
      {"originator  lead trail  \n", true, 850, " LEAD TRAIL   "},
      {"originator a\tz\n", true, 850, "A\tZ "},
      {"originator \xe9t\xc9\xff\n", true, 850, "\xe9T\xc9\xff "},
      {"originator a\\b\n", true, 850, "AB "},
      {"originator a\\\\b\n", true, 850, "AB "},
      {"originator a\\\\\\\\b\n", true, 850, "A\\B "},
      {"originator ab\\\\\n", true, 850, "AB "},
      {"originator abcdef\n", true, 4, "ABC "},
      {"originator " + rep('a', 1000) + "\n", true, 849, rep('A', 848) + " "},
      // Escapes are removed from the first 849 raw characters only.
      {"originator " + rep('a', 847) + "\\bcc\n", true, 850, rep('A', 847) + "B "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line.substr(0, 60));
    Rules r(c.upshift);
    std::string dest = "old";
    adcdf_get_address(r.rules, c.line, 2, dest, c.limit);
    EXPECT_EQ(dest, c.expected);
  }
}

TEST(CleanAddress, UpshiftChangesOnlyLowercaseAscii) {
  std::string source;
  for (int b = 1; b < 256; ++b) {
    if (b != '\\') source.push_back(static_cast<char>(b));
  }
  std::string upper = source;
  for (char& c : upper) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  Rules on(true), off(false);
  std::string dest;
  adcdf_clean_address(on.rules, source, dest, 850);
  EXPECT_EQ(dest, upper + " ");
  adcdf_clean_address(off.rules, source, dest, 850);
  EXPECT_EQ(dest, source + " ");
}

TEST(CleanAddress, CutsToKeepTheAppendedBlank) {
  Rules r;
  std::string dest = "old";
  // A trailing backslash escapes the appended blank, which survives.
  adcdf_clean_address(r.rules, "a\\", dest, 850);
  EXPECT_EQ(dest, "A ");
  adcdf_clean_address(r.rules, rep('x', 850), dest, 850);
  EXPECT_EQ(dest, rep('X', 849) + " ");
}

TEST(SpecialProcessing, BackslashYieldsNextCharacterUnexamined) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"plain, \"quoted\"", "plain, \"quoted\""},
      {"\\", ""},
      {"a\\", "a"},
      {"\\\\", "\\"},
      {"\\\\\\", "\\"},
      {"\\\\\\\\", "\\\\"},
      {"x\\\\\\y", "x\\y"},
      {"\\a\\b\\ c", "ab c"},
      {"a\\\nb", "a\nb"},
  };
  for (const auto& [in, out] : cases) {
    SCOPED_TRACE(in);
    Rules r;
    std::string text = in;
    EXPECT_EQ(adcdf_special_processing(r.rules.trace, text), 0);
    EXPECT_EQ(text, out);
  }
}

constexpr const char* kSpecial = "-> adcdf_special_processing\n<- adcdf_special_processing\n";

TEST(FieldTraces, EachRoutineTracesItsCallsInOrder) {
  auto traced = [](bool debug, auto call) {
    Rules r(true, debug);
    std::string dest;
    call(r.rules, dest);
    return r.capture.text();
  };
  const std::string special = "-> adcdf_special_processing\n<- adcdf_special_processing\n";
  const std::string varstring = "-> adcdf_get_varstring\n" + special + "<- adcdf_get_varstring\n";
  const std::string clean = "-> adcdf_clean_address\n" + special + "<- adcdf_clean_address\n";
  EXPECT_EQ(traced(true, [](auto& f, auto& d) { adcdf_get_item(f, "type 1\n", 2, d, 4); }),
            "-> adcdf_get_item\n<- adcdf_get_item\n");
  // An empty value still runs the escape removal.
  EXPECT_EQ(traced(true, [](auto& f, auto& d) { adcdf_get_varstring(f, "subject\n", 2, d, 80); }),
            varstring);
  EXPECT_EQ(traced(true, [](auto& f, auto& d) { adcdf_get_varstring_sz(f, "s x\n", 2, d, 80); }),
            varstring);
  EXPECT_EQ(traced(true, [](auto& f, auto& d) { adcdf_get_varstring_mta(f, "m x\n", 2, d, 80); }),
            "-> adcdf_get_varstring_mta\n<- adcdf_get_varstring_mta\n");
  EXPECT_EQ(traced(true, [](auto& f, auto& d) { adcdf_get_address(f, "o\n", 2, d, 850); }),
            "-> adcdf_get_address\n" + varstring + clean + "<- adcdf_get_address\n");
  EXPECT_EQ(traced(false, [](auto& f, auto& d) { adcdf_get_address(f, "o a\n", 2, d, 850); }), "");
}

}  // namespace
}  // namespace adcdf
