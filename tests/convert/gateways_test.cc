#include <gtest/gtest.h>

#include <algorithm>

#include "convert/convert_test_support.h"
#include "convert/sections.h"

namespace adcdf {
namespace {

using namespace testing;

// The first originator wins; "mta_message-id" fills the same column as "mta-message-id", the
// later line winning, backslashes kept; any "all-recips-non-deliv" line gives "yes".
TEST(X400Converters, Sections) {
  const std::string body =
      "priority 1\nsensitivity 2\nimportance 3\noriginator-admin-cap first\noriginator second\n"
      "ua-message-id U\\1\nmta-message-id A\\B\nmta_message-id C\\D\nall-recips-non-deliv no\n"
      "ua-ack-id 1\nsubject s\nnon-delivery-reason 2\nrecipient-to a\nrecipient-cc b\n\n";
  const std::string common = "0,1,2,3,\"FIRST \",\"U1\",\"yes\",0,0,\"\",0,0,0,\"\",\"C\\D\"";
  run_cases({
      {"x400-in", "x400-in\n", 114, body, common, ""},
      {"x400-out", "x400-out\n", 115, body, common + ",\"\",0,2", ""},
      {"empty x400-in", "x400-in\n", 114, "\n",
       "0,0,0,0,\" \",\" \",\" \",0,0,\"\",0,0,0,\"\",\" \"", ""},
      {"empty x400-out", "x400-out\n", 115, "\n",
       "0,0,0,0,\" \",\" \",\" \",0,0,\"\",0,0,0,\"\",\" \",\"\",0,0", ""},
      {"bare all-recips-non-deliv", "x400-in\n", 114, "all-recips-non-deliv\n\n",
       "0,0,0,0,\" \",\" \",\"yes\",0,0,\"\",0,0,0,\"\",\" \"", ""},
  });
  // The first-originator rule starts afresh in every section.
  run_cases({{"next section", "x400-out\n", 115, "originator third\n\n",
              "0,0,0,0,\"THIRD \",\" \",\" \",0,0,\"\",0,0,0,\"\",\" \",\"\",0,0", ""}});
}

// Keywords that one twin accepts and the other reports as skipped.
TEST(GatewayConverters, TwinKeywordDifferences) {
  struct Row {
    const char* line;
    std::string_view accepts;
    std::string_view skips;
  };
  const Row rows[] = {
      {"type 1", "x400-in\n", "x400-out\n"},
      {"some-recips-non-deliv", "x400-in\n", "x400-out\n"},
      {"mta-ack-id 1", "x400-out\n", "x400-in\n"},
      {"type 1", "unix-out\n", "unix-in\n"},
      {"non-delivery-reason 1", "unix-out\n", "unix-in\n"},
      {"mta-message-id m", "unix-out\n", "unix-in\n"},
      {"ua-ack-id 1", "unix-out\n", "unix-in\n"},
      {"hop-count 1", "unix-out\n", "unix-in\n"},
      {"unix-ack-id 1", "unix-out\n", "unix-in\n"},
      {"ack-id 1", "unix-out\n", "unix-in\n"},
      {"desk-message-id d", "desk-in\n", "desk-out\n"},
      {"desk-ack-id 1", "desk-in\n", "desk-out\n"},
      {"foreign-ack 1", "desk-in\n", "desk-out\n"},
      {"mta-message-id m", "desk-out\n", "desk-in\n"},
      {"mta-ack-id 1", "desk-out\n", "desk-in\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.line);
    const std::string body = std::string(row.line) + "\n\n";
    Converted accepted = convert(row.accepts, body);
    Converted refused = convert(row.skips, body);
    EXPECT_EQ(accepted.errors, "");
    EXPECT_EQ(refused.errors, skipped(3, row.line));
    EXPECT_EQ(std::count(refused.records.begin(), refused.records.end(), '\n'), 1);
  }
}

// The Unix originator holds 950 bytes: a long address keeps all that the 849-character address
// work buffer passes on, where the 850-byte originators of the other gateways lose one more.
TEST(UnixConverters, Sections) {
  const std::string longer = "originator " + std::string(900, 'a') + "\n\n";
  const std::string unix_orig = std::string(849, 'A') + " ";
  run_cases({
      {"empty unix-in", "unix-in\n", 110, "\n", "0,0,0,0,\" \",\" \",0,0,0,\"\",0,0,0,\"\",\"\"",
       ""},
      {"unix-in ignores", "unix-in\n", 110,
       "originator a\noriginator b\nua-message-id U\nunix-message-id x\nsubject s\n"
       "recipient-to r\n\n",
       "0,0,0,0,\"B \",\"U\",0,0,0,\"\",0,0,0,\"\",\"\"", ""},
      {"empty unix-out", "unix-out\n", 111, "\n",
       "0,0,0,0,\" \",\" \",0,0,0,\"\",0,0,0,\"\",\" \",\" \",\"\",0,0", ""},
      {"full unix-out", "unix-out\n", 111,
       "type 1 2\noriginator o\nua-message-id U\nnon-delivery-reason 2 3\nmta-message-id M\n"
       "unix-message-id X Y\nrecipient-to a\nrecipient-cc b\nrecipient-bcc c\n\n",
       "1,0,0,0,\"O \",\"U\",2 3,0,0,\"\",0,0,0,\"\",\"M\",\"X Y\",\"\",0,3", ""},
      {"unix-in long originator", "unix-in\n", 110, longer,
       "0,0,0,0,\"" + unix_orig + "\",\" \",0,0,0,\"\",0,0,0,\"\",\"\"", ""},
      {"unix-out long originator", "unix-out\n", 111, longer,
       "0,0,0,0,\"" + unix_orig + "\",\" \",0,0,0,\"\",0,0,0,\"\",\" \",\" \",\"\",0,0", ""},
      {"x400-in long originator", "x400-in\n", 114, longer,
       "0,0,0,0,\"" + std::string(848, 'A') + " \",\" \",\" \",0,0,\"\",0,0,0,\"\",\" \"", ""},
  });
}

TEST(DeskConverters, Sections) {
  run_cases({
      {"empty desk-in", "desk-in\n", 112, "\n", "0,0,0,0,\" \",\" \",0,0,0,\" \",0,0,0,\"\",\"\"",
       ""},
      {"full desk-in", "desk-in\n", 112,
       "originator a\noriginator b\ntype 5 6\nua-message-id U V\nnon-delivery-reason 7\n"
       "desk-message-id D1 D2\nrecipient-to r\nsubject s\n\n",
       "5,0,0,0,\"B \",\"U V\",7,0,0,\"D1\",0,0,0,\"\",\"\"", ""},
      {"empty desk-out", "desk-out\n", 113, "\n",
       "0,0,0,0,\" \",\" \",0,0,0,\"\",0,0,0,\"\",\"\",0", ""},
      {"desk-out recipients", "desk-out\n", 113, "recipient-to a\nrecipient-cc b\nua-ack-id 1\n\n",
       "0,0,0,0,\" \",\" \",0,0,0,\"\",0,0,0,\"\",\"\",2", ""},
  });
}

// One record per recipient, written after the blank line with the section's final values.
TEST(FaxConverter, OneRecordPerRecipient) {
  Converted out = convert("fax\n",
                          "priority 1\nsensitivity 2\nimportance 3\noriginator one\n"
                          "recipient-to ann\noriginator two\nua-message-id UA\nrecipient-cc bob\n"
                          "recipient-memo\nrecipient \nduration 12\nnon-delivery-reason 5\n"
                          "retries 2\nsent-pages 9\nsent-time 10:00 am\nmta-message-id M\n"
                          "subject s\n\n");
  const std::string head = "0,1,2,3,\"TWO \",\"UA\",5,12,";
  const std::string tail = ",2,9,\"10:00 am\",\"\",\"M\"";
  EXPECT_EQ(out.records, rec(107, head + "0,\"ANN \"" + tail) +
                             rec(107, head + "1,\"BOB \"" + tail) +
                             rec(107, head + "4,\" \"" + tail) + rec(107, head + "4,\" \"" + tail));
  EXPECT_EQ(out.errors, "");

  out = convert("fax\n", "recipient-bcc x\n\n");
  EXPECT_EQ(out.records, rec(107, "0,0,0,0,\" \",\" \",0,0,2,\"X \",0,0,\" \",\"\",\" \""));

  out = convert("fax\n", "originator o\nbogus\n\n");
  EXPECT_EQ(out.records, "");
  EXPECT_EQ(out.errors, skipped(4, "bogus"));
}

TEST(SmsConverters, ReasonComesBeforeSize) {
  const std::string body = "message-size 1234 5\nnon-delivery-reason 5\noriginator x\n\n";
  const std::string columns = "\"\",0,0,0,\"\",\"\",5,1234,0,\"\",0,0,0,\"\",\"\"";
  run_cases({
      {"sms-in", "sms-in\n", 119, body, columns, skipped(5, "originator x")},
      {"sms-out", "sms-out\n", 120, body, columns, skipped(5, "originator x")},
      {"empty", "sms-in\n", 119, "\n", "\"\",0,0,0,\"\",\"\",0,0,0,\"\",0,0,0,\"\",\"\"", ""},
  });
}

}  // namespace
}  // namespace adcdf
