// Cutting values out of keyword lines: which part of the line each routine takes, how it is cut
// to its limit, escapes, upper-casing and the appended blank of addresses, and the traces.
#include "record/fields.h"

#include <gtest/gtest.h>

#include <string>

#include "test_support.h"

namespace adcdf {
namespace {

using testing::TraceCapture;

enum class Routine { kItem, kVarstring, kVarstringSz, kMta, kAddress, kAddressAsWritten };

std::string take(Routine routine, const std::string& line, int pos, size_t limit, Tracer& trace) {
  FieldRules rules{trace, routine != Routine::kAddressAsWritten};
  std::string dest = "old";
  switch (routine) {
    case Routine::kItem:
      adcdf_get_item(rules, line, pos, dest, limit);
      break;
    case Routine::kVarstring:
      adcdf_get_varstring(rules, line, pos, dest, limit);
      break;
    case Routine::kVarstringSz:
      adcdf_get_varstring_sz(rules, line, pos, dest, static_cast<int>(limit));
      break;
    case Routine::kMta:
      adcdf_get_varstring_mta(rules, line, pos, dest, limit);
      break;
    case Routine::kAddress:
    case Routine::kAddressAsWritten:
      adcdf_get_address(rules, line, pos, dest, limit);
      break;
  }
  return dest;
}

TEST(Fields, EachRoutineTakesItsPartOfTheLine) {
  using enum Routine;
  const std::string a1000(1000, 'a');
  const struct {
    Routine routine;
    std::string line;
    int pos;
    size_t limit;
    std::string expected;
  } cases[] = {
      // A word: blanks only separate words; cut to the limit; word 1 is the whole line.
      {kItem, "type  1   2\n", 3, 80, "2"},
      {kItem, "code a\tb c\n", 2, 80, "a\tb"},
      {kItem, "type 1\n", 3, 80, ""},
      {kItem, "count 123456\n", 2, 4, "1234"},
      {kItem, "subject Hello\n", 1, 80, "subject Hello\n"},
      // The rest of the line, inner and extra blanks kept; cut first, then escapes removed.
      {kVarstring, "subject  Hello \n", 2, 1000, " Hello "},
      {kVarstring, "type 1  two\n", 3, 1000, " two"},
      {kVarstring, "subject \n", 2, 1000, ""},
      {kVarstring, "subject a\\\\\\\\b\n", 2, 1000, "a\\\\b"},
      {kVarstring, "subject ab\\\n", 2, 1000, "ab"},
      {kVarstringSz, "subject abcd\\\\ef\n", 2, 5, "abcd"},
      {kVarstringSz, "subject a\\bcdef\n", 2, 4, "abc"},
      // The message-transfer id keeps every backslash.
      {kMta, "mta a\\\\b\n", 2, 1000, "a\\\\b"},
      {kMta, "mta ab\\\n", 2, 1000, "ab\\"},
      // An address: escapes removed twice, upper-cased (unless written as it is), a blank added
      // within the limit; only the first 849 raw characters count.
      {kAddress, "originator  lead trail  \n", 2, 850, " LEAD TRAIL   "},
      {kAddress, "originator \xe9t\xc9\xff\n", 2, 850, "\xe9T\xc9\xff "},
      {kAddress, "originator a\\\\\\\\b\n", 2, 850, "A\\B "},
      {kAddress, "originator\n", 2, 850, " "},
      {kAddress, "originator abcdef\n", 2, 4, "ABC "},
      {kAddress, "originator " + a1000 + "\n", 2, 849, std::string(848, 'A') + " "},
      {kAddressAsWritten, "originator john.smith/sales\n", 2, 850, "john.smith/sales "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line.substr(0, 40));
    TraceCapture trace;
    EXPECT_EQ(take(c.routine, c.line, c.pos, c.limit, trace.tracer()), c.expected);
  }
}

// Each routine traces itself and the routines it calls, in order, and only in debug mode; an
// empty value still goes through the escape removal.
TEST(Fields, TracesInOrder) {
  const std::string special = "-> adcdf_special_processing\n<- adcdf_special_processing\n";
  const std::string varstring = "-> adcdf_get_varstring\n" + special + "<- adcdf_get_varstring\n";
  const std::string clean = "-> adcdf_clean_address\n" + special + "<- adcdf_clean_address\n";
  const std::pair<Routine, std::string> cases[] = {
      {Routine::kItem, "-> adcdf_get_item\n<- adcdf_get_item\n"},
      {Routine::kVarstringSz, varstring},
      {Routine::kMta, "-> adcdf_get_varstring_mta\n<- adcdf_get_varstring_mta\n"},
      {Routine::kAddress, "-> adcdf_get_address\n" + varstring + clean + "<- adcdf_get_address\n"},
  };
  for (const auto& [routine, expected] : cases) {
    for (bool debug : {true, false}) {
      TraceCapture trace;
      trace.tracer().set_debug(debug);
      take(routine, "keyword\n", 2, 80, trace.tracer());
      EXPECT_EQ(trace.text(), debug ? expected : "");
    }
  }
}

}  // namespace
}  // namespace adcdf
