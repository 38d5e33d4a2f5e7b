// Splitting lines with the record layouts, typed values and the UTF-8 mapping.
#include "export/splitter.h"
#include "export_support.h"
#include "stream/generations.h"

namespace adcdf::exporter {
namespace {

// A unix-out record (111) with columns 13 to 16 and 24 as given.
std::string unix_out(const std::string& originator, const std::string& id,
                     const std::string& reason, const std::string& reserved = "0",
                     const std::string& unix_id = "\"U\"") {
  return "111,126,1,1,10,0,0,1767261600,4,0,0,0," + originator + "," + id + "," + reason + "," +
         reserved + ",0,\"\",0,0,0,\"\",\"M\"," + unix_id + ",\"\",0,2";
}

struct SplitCase {
  const char* what;
  std::string line;
  size_t column;      // 1-based
  const char* value;  // null: the line is rejected
};

TEST(Splitter, SplitsWhatTheLayoutAllowsOneWayAndRejectsTheRest) {
  const SplitCase cases[] = {
      {"plain record", unix_out("\"LI \"", "\"UA\"", "2"), 15, "2"},
      {"quotes and \", \" in a quoted value",
       unix_out("\"LI \"", "\"UA\"", "2", "0", "\"a\", \"b\""), 24, "a\", \"b"},
      {"a bare comma only one column can hold", unix_out("\"LI \"", "\"UA\"", "7,8"), 15, "7,8"},
      {"\",\" between two quoted columns", unix_out("\"LI\",\"X \"", "\"UA\"", "2"), 13, nullptr},
      {"a bare value longer than its width", unix_out("\"LI \"", "\"UA\"", "12345"), 15, nullptr},
      {"a constant column not holding its constant", unix_out("\"LI \"", "\"UA\"", "2", "1"), 15,
       nullptr},
      {"a quoted column without quotes", unix_out("LI", "\"UA\"", "2"), 13, nullptr},
      {"a column short", unix_out("\"LI \"", "\"UA\"", "2").substr(0, 60), 1, nullptr},
      {"an unknown type", "777,1,2", 1, nullptr},
      {"no type", "abc,1", 1, nullptr},
      {"an empty line", "", 1, nullptr},
      {"a header with a comma in its host", header_record(1767261600, "mail,1").substr(0, 61), 9,
       "mail,1"},
  };
  Splitter splitter;
  std::vector<std::string_view> values;
  for (const SplitCase& c : cases) {
    const RecordType* type = splitter.split(c.line, values);
    if (c.value == nullptr) {
      EXPECT_EQ(type, nullptr) << c.what;
    } else {
      ASSERT_NE(type, nullptr) << c.what;
      EXPECT_EQ(values.size(), type->columns.size()) << c.what;
      EXPECT_EQ(values.at(c.column - 1), c.value) << c.what;
    }
  }
}

TEST(Values, OnlyThePlainFormOfAnIntegerIsOne) {
  const std::pair<const char*, bool> cases[] = {
      {"0", true},    {"48213", true}, {"-12", true},  {"9223372036854775807", true},
      {" 34", false}, {"007", false},  {"8\r", false}, {"", false},
      {"-0", false},  {"+1", false},   {"1 ", false},  {"9223372036854775808", false},
  };
  for (const auto& [text, plain] : cases) {
    int64_t value;
    EXPECT_EQ(parse_integer(text, value), plain) << "'" << text << "'";
  }
}

// What the targets get is valid UTF-8 and maps back to the bytes; valid UTF-8 outside the
// escape characters stays as it is.
TEST(Values, EveryByteStringMapsToUtf8ThatGivesItBack) {
  const std::pair<std::string, bool> cases[] = {
      {"plain", true},
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\xa7", true},
      {"caf\xe9", false},
      {std::string("a\0b", 3), false},
      {"\xee\xbd\x81", false},               // U+EF41: itself an escape character
      {"\xed\xa0\x80", false},               // a surrogate
      {"\xc0\xaf \xf4\x90\x80\x80", false},  // overlong, above U+10FFFF
      {"\xe2\x82", false},                   // cut short
  };
  for (const auto& [bytes, unchanged] : cases) {
    std::string scratch;
    const std::string text(utf8_text(bytes, scratch));
    EXPECT_EQ(text == bytes, unchanged) << bytes;
    EXPECT_EQ(text.find('\0'), std::string::npos);
    EXPECT_EQ(export_test::original(text), bytes);
  }
}

}  // namespace
}  // namespace adcdf::exporter
