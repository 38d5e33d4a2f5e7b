#include <gtest/gtest.h>

#include "convert/convert_test_support.h"
#include "convert/sections.h"

namespace adcdf {
namespace {

using namespace testing;

TEST(RoutingConverter, WorkedExample) {
  Converted out = convert("routing\n",
                          "type 1\npriority 2\noriginator john/sales\nua-message-id ABC123\n"
                          "recipient-to mary/sales\nack-req 1\nqueue LOCAL\nsubject Hi\n"
                          "part-type 3\nall-recips-non-deliv\n\n");
  EXPECT_EQ(out.records,
            rec(101, "1,2,0,0,\"JOHN/SALES \",\"ABC123\",0,0,x,\"\",0,0,x,\"\",\" \",\"Hi\",0,1") +
                rec(503, "\"JOHN/SALES \",\"ABC123\",0,0,0,1,\"LOCAL\",\"MARY/SALES \",1,0"));
  EXPECT_EQ(out.errors, "");
}

// Recipients are written in reading order after the 101 record, each with its own category,
// acknowledgement request, queue and flags, and with the section's final values (0 recipients
// is the section without keywords). The sizes run largest first, so a section that reuses a
// bigger one's recipient slots shows any leftovers.
TEST(RoutingConverter, ManyRecipients) {
  const char* kinds[] = {"to", "cc", "bcc", "from", "reply"};
  struct Queue {
    const char* name;
    const char* flags;
  };
  const Queue queues[] = {{"LOCAL", "1,0"},
                          {"ekx400-gw", "0,1"},
                          {"SMINTFC", "0,1"},
                          {"local", "0,0"},
                          {"Ekx400", "0,0"}};
  for (int n : {300, 25, 1, 0}) {
    SCOPED_TRACE(n);
    std::string body;
    std::string details;
    const std::string size = n >= 7 ? "77" : "0";
    for (int i = 0; i < n; ++i) {
      const Queue& q = queues[i % 5];
      body += std::string("recipient-") + kinds[i % 5] + " r" + std::to_string(i) + "\n" +
              "ack-req " + std::to_string(i % 10) + "\nqueue " + q.name + "\n";
      if (i % 7 == 6) body += "message-size 77\nua-ack-id 4\n";
      details += rec(503, "\" \",\" \",0," + size + "," + std::to_string(i % 5) + "," +
                              std::to_string(i % 10) + ",\"" + q.name + "\",\"R" +
                              std::to_string(i) + " \"," + q.flags);
    }
    Converted out = convert("routing\n", body + "\n");
    EXPECT_EQ(out.records, rec(101, "0,0,0,0,\" \",\" \",0," + size +
                                        ",x,\"\",0,0,x,\"\",\" \",\" \",0," + std::to_string(n)) +
                               details);
    EXPECT_EQ(out.errors, "");
  }
}

// The two lines after a recipient line are its acknowledgement request and queue, whatever
// they hold, and they are waited for when the file ends after the recipient line.
TEST(RoutingConverter, RecipientConsumesTheNextTwoLines) {
  Converted out = convert("routing\n", "recipient-cc bob\nsubject X\ntype 9\npriority 3\n\n");
  EXPECT_EQ(out.records, rec(101, "0,3,0,0,\" \",\" \",0,0,x,\"\",0,0,x,\"\",\" \",\" \",0,1") +
                             rec(503, "\" \",\" \",0,0,1,X,\"9\",\"BOB \",0,0"));

  ::setenv("TZ", "UTC", 1);
  ::tzset();
  Harness h("hdr 1364913005\nrecipient-to ann\n", {}, {"ack-req 1\n", "queue EKX400\n\n"});
  h.ctx.last = kNoRotation;
  EXPECT_EQ(h.convert("routing\n"), 0);
  EXPECT_EQ(h.ctx.output.records.view(),
            rec(101, "0,0,0,0,\" \",\" \",0,0,x,\"\",0,0,x,\"\",\" \",\" \",0,1") +
                rec(503, "\" \",\" \",0,0,0,1,\"EKX400\",\"ANN \",0,1"));
}

// A non-delivery reason fills the reason column of the 101 record and of every 503 record:
// its second word, cut to 4 characters.
TEST(RoutingConverter, NonDeliveryReason) {
  Converted out = convert("routing\n",
                          "recipient-to a\nack-req 0\nqueue q\nnon-delivery-reason 12345 more\n\n");
  EXPECT_EQ(out.records, rec(101, "0,0,0,0,\" \",\" \",1234,0,x,\"\",0,0,x,\"\",\" \",\" \",0,1") +
                             rec(503, "\" \",\" \",1234,0,0,0,\"q\",\"A \",0,0"));
  EXPECT_EQ(out.errors, "");
}

TEST(RoutingConverter, PrefixMatchLimitsAndSkippedLines) {
  Converted out = convert("routing\n",
                          "typeface x\nhop-count 123456\nmessage-size 12345678901\n"
                          " \nqueue LOCAL\nsubject " +
                              std::string(300, 's') + "\n\n");
  EXPECT_EQ(out.records, rec(101, "x,0,0,0,\" \",\" \",0,123456789,x,\"\",0,1234,x,\"\",\" \",\"" +
                                      std::string(257, 's') + "\",0,0"));
  EXPECT_EQ(out.errors, skipped(6, " ") + skipped(7, "queue LOCAL"));
}

TEST(RoutingConverter, CommasAndQuotesAreWrittenUnchanged) {
  Converted out =
      convert("routing\n", "ua-message-id a,\"b\"\nsubject Hi, \"there\"\nmta-message-id m,1\n\n");
  EXPECT_EQ(out.records, rec(101,
                             "0,0,0,0,\" \",\"a,\"b\"\",0,0,x,\"\",0,0,x,\"\",\"m,1\","
                             "\"Hi, \"there\"\",0,0"));
}

TEST(DeliveryConverter, WorkedExample) {
  Converted out =
      convert("delivery\n",
              "originator bob\nrecipient-to ann\nnon-delivery-reason 3\nrecipient-cc joe\n"
              "subject s\nnew-ua-message-id n\n\n");
  EXPECT_EQ(out.records, rec(108, "0,0,0,0,\"BOB \",\" \",3,0,0,0,0,0,0,\"\",\" \"") +
                             rec(504, "\"BOB \",\" \",3,\"ANN \"") +
                             rec(504, "\"BOB \",\" \",0,\"JOE \""));
  EXPECT_EQ(out.errors, "");

  out = convert("delivery\n", "\n");
  EXPECT_EQ(out.records, rec(108, "0,0,0,0,\" \",\" \",0,0,0,0,0,0,0,\"\",\" \""));
}

// Each reason belongs to the recipient before it; one before the first recipient sets only the
// section's. A reason that does not start with digits gives the recipient 0; the section's
// column shows the text. The last reason is the section's.
TEST(DeliveryConverter, ReasonsBelongToThePrecedingRecipient) {
  Converted out = convert("delivery\n",
                          "non-delivery-reason 7\nrecipient-to a\nrecipient-to b\n"
                          "non-delivery-reason 42x\nrecipient-to c\nnon-delivery-reason abc\n\n");
  EXPECT_EQ(out.records, rec(108, "0,0,0,0,\" \",\" \",abc,0,0,0,0,0,0,\"\",\" \"") +
                             rec(504, "\" \",\" \",0,\"A \"") + rec(504, "\" \",\" \",42,\"B \"") +
                             rec(504, "\" \",\" \",0,\"C \""));

  // A later section's recipients start without a reason, in slots that held one before.
  out = convert("delivery\n", "recipient-to a\nrecipient-to b\n\n");
  EXPECT_EQ(out.records, rec(108, "0,0,0,0,\" \",\" \",0,0,0,0,0,0,0,\"\",\" \"") +
                             rec(504, "\" \",\" \",0,\"A \"") + rec(504, "\" \",\" \",0,\"B \""));
}

// The automatic actions are written in the record's order (notify, reply, delivered count, file,
// print, forward), each as the rest of its line.
TEST(DeliveryConverter, AutomaticActionColumns) {
  Converted out = convert("delivery\n",
                          "auto-forward 1\nauto-notify 2\nauto-reply 3\nauto-file 4\n"
                          "auto-print 5 5\ndelivered-count 6\ntype 7\nmta-message-id M\n\n");
  EXPECT_EQ(out.records, rec(108, "7,0,0,0,\" \",\" \",0,2,3,6,4,5 5,1,\"\",\"M\""));
}

TEST(BulletinConverter, Sections) {
  Converted out = convert("bulletin\n",
                          "type 2\noriginator ann/hq\nbulletin-name Staff News\nsubject s\n"
                          "bulletin-type t\nrecipient-to x\n\n");
  EXPECT_EQ(out.records,
            rec(118, "2,0,0,0,\"ANN/HQ \",\" \",0,0,0,\"Staff News\",0,0,0,\"\",\"\""));
  EXPECT_EQ(out.errors, skipped(8, "recipient-to x"));

  // No space rule on the MTA message id; a comma, a quote and an escape in the bulletin name.
  out = convert("bulletin\n", "bulletin-name a,\\b \"c\"\n\n");
  EXPECT_EQ(out.records, rec(118, "0,0,0,0,\" \",\" \",0,0,0,\"a,b \"c\"\",0,0,0,\"\",\"\""));
  out = convert("bulletin\n", "mta-message-id M1\n\n");
  EXPECT_EQ(out.records, rec(118, "0,0,0,0,\" \",\" \",0,0,0,\" \",0,0,0,\"\",\"M1\""));
}

}  // namespace
}  // namespace adcdf
