#include "record/recipients.h"

#include <gtest/gtest.h>

#include <string>

#include "stream/context.h"
#include "test_support.h"

namespace adcdf {
namespace {

using testing::Harness;
using testing::TraceCapture;

// A slot holding leftovers, so that every field the routine must set is seen to be set.
recrep used_slot() {
  recrep r;
  r.category = "9";
  r.recip = "OLD ";
  return r;
}

TEST(GetRecipLine, CategoryAndCleanedAddress) {
  struct Case {
    std::string line, category, recip;
    bool cleaned;
  };
  const Case cases[] = {
      {"recipient-to John Smith/Sales\n", "0", "JOHN SMITH/SALES ", true},
      {"recipient-cc a\n", "1", "A ", true},
      {"recipient-bcc x", "2", "X ", true},
      {"recipient-from y\n", "3", "Y ", true},
      {"recipient-reply x\n", "4", "X ", true},
      {"recipient-To x\n", "4", "X ", true},
      {"recipient-toto x\n", "4", "X ", true},
      {"recipient-to  a-b c \n", "0", " A-B C  ", true},
      {"recipient-to a\\\\b\\\n", "0", "A\\B ", true},
      {"recipient-to \n", "0", " ", true},
      {"recipient-to\n", "0", "", false},
      {"recipient-\n", "4", "", false},
      {"recipient to x\n", "4", "", false},
      {"recipient-to " + std::string(1000, 'a') + "\n", "0", std::string(848, 'A') + " ", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line.substr(0, 40));
    TraceCapture capture;
    capture.tracer().set_debug(true);
    recrep r = used_slot();
    EXPECT_EQ(adcdf_get_recip_line({capture.tracer(), true}, c.line, r, 3), 0);
    EXPECT_EQ(r.category, c.category);
    EXPECT_EQ(r.recip, c.recip);
    std::string expected_trace = "-> adcdf_get_recip_line\n";
    if (c.cleaned) {
      expected_trace +=
          "-> adcdf_clean_address\n-> adcdf_special_processing\n<- adcdf_special_processing\n"
          "<- adcdf_clean_address\n";
    }
    EXPECT_EQ(capture.text(), expected_trace + "<- adcdf_get_recip_line\n");
  }
}

// Runs adcdf_get_recip_info on a recipient line followed by `rest` in the audit stream.
struct RecipInfo {
  explicit RecipInfo(std::string rest, Options options = {})
      : h(std::move(rest), std::move(options)) {
    h.ctx.gszLine = line;
    h.ctx.giLineno = 10;
  }
  recrep run() {
    recrep r = used_slot();
    r.ack_req = r.queue = "old";
    r.local = r.brindleRoute = true;
    adcdf_get_recip_info(h.ctx, r, 0);
    return r;
  }
  std::string line = "recipient-to Bob\n";
  Harness h;
};

TEST(GetRecipInfo, ReadsAckRequestAndQueueLines) {
  RecipInfo info("ack-req 1234 5\nqueue  my\\\\q \\\nnext line\n");
  recrep r = info.run();
  EXPECT_EQ(r.category, "0");
  EXPECT_EQ(r.recip, "BOB ");
  EXPECT_EQ(r.ack_req, "12");
  EXPECT_EQ(r.queue, " my\\q ");
  EXPECT_FALSE(r.local || r.brindleRoute);
  EXPECT_EQ(info.h.ctx.giLineno, 12);
  EXPECT_EQ(info.h.ctx.input.read_section_line(), "next line\n");
}

TEST(GetRecipInfo, QueueFlags) {
  struct Case {
    std::string queue_line, queue;
    bool local, gateway;
  };
  const Case cases[] = {
      {"queue LOCAL\n", "LOCAL", true, false},
      {"queue \\LOCAL\n", "LOCAL", true, false},
      {"queue local\n", "local", false, false},
      {"queue LOCAL \n", "LOCAL ", false, false},
      {"queue ekx400-gw\n", "ekx400-gw", false, true},
      {"queue EKX400\n", "EKX400", false, true},
      {"queue Ekx400\n", "Ekx400", false, false},
      {"queue  ekx400\n", " ekx400", false, false},
      {"queue smintfc\n", "smintfc", false, true},
      {"queue SMINTFC2\n", "SMINTFC2", false, true},
      {"queue smintf\n", "smintf", false, false},
      {"queue\n", "", false, false},
      {"queue " + std::string(200, 'q') + "\n", std::string(127, 'q'), false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.queue_line.substr(0, 40));
    RecipInfo info("ack-req\n" + c.queue_line);
    recrep r = info.run();
    EXPECT_EQ(r.ack_req, "");
    EXPECT_EQ(r.queue, c.queue);
    EXPECT_EQ(r.local, c.local);
    EXPECT_EQ(r.brindleRoute, c.gateway);
  }
}

TEST(GetRecipInfo, MissingAckLineTakesWhateverFollows) {
  RecipInfo info("queue LOCAL\n\n");
  recrep r = info.run();
  EXPECT_EQ(r.ack_req, "LO");
  EXPECT_EQ(r.queue, "");
  EXPECT_FALSE(r.local);
}

TEST(GetRecipInfo, TraceOrderAndUpshiftOff) {
  Options options;
  options.debug = true;
  options.gbUpshift = false;
  RecipInfo info("ack-req y\nqueue q\n", options);
  EXPECT_EQ(info.run().recip, "Bob ");
  const std::string special = "-> adcdf_special_processing\n<- adcdf_special_processing\n";
  EXPECT_EQ(info.h.trace.text(),
            "-> adcdf_get_recip_info\n-> adcdf_get_recip_line\n-> adcdf_clean_address\n" + special +
                "<- adcdf_clean_address\n<- adcdf_get_recip_line\n" +
                "-> adcdf_get_item\n<- adcdf_get_item\n-> adcdf_get_varstring\n" + special +
                "<- adcdf_get_varstring\n<- adcdf_get_recip_info\n");
}

TEST(RecipientArray, GrowsKeepsOrderAndResetsSlotsEverySection) {
  RecipientArray array;
  array.begin_section();
  for (int i = 0; i < 35; ++i) {
    recrep& r = array.next_slot();
    r = used_slot();
    r.ack_req = "1";
    r.queue = "LOCAL";
    r.local = r.brindleRoute = true;
    r.ndnReason = i + 1;
    array.store();
  }
  array.begin_section();
  EXPECT_TRUE(array.empty());
  for (int i = 0; i < 450; ++i) {
    array.next_slot().category = std::to_string(i);
    array.store();
  }
  ASSERT_EQ(array.size(), 450);
  EXPECT_EQ(array.back().category, "449");
  for (int i = 0; i < 450; ++i) {
    SCOPED_TRACE(i);
    const recrep& r = array[i];
    EXPECT_EQ(r.category, std::to_string(i));
    EXPECT_EQ(r.ndnReason, 0);
    EXPECT_EQ(r.recip + r.queue + r.ack_req, "");
    EXPECT_FALSE(r.local || r.brindleRoute);
  }
}

TEST(ProcessUser, SplitsUserLine) {
  struct Case {
    std::string line;
    std::string number, mail, name1, name2;
  };
  const std::string d25(25, '7'), n25(25, 'n'), m100(100, 'm');
  const Case cases[] = {
      {"user 123 Main Mail System jsmith smithj\n", "123", "MAIN MAIL SYSTEM ", "jsmith", "smithj"},
      {"user 1 m js sj\n", "1", "M ", "js", "sj"},
      {"user 1 m js sj", "1", "M ", "js", "sj"},
      {"user 123  Mail a b\n", "123", " MAIL ", "a", "b"},
      {"user 1  a  b\n", "1", " A ", "", "b"},
      {"user 1 m a b \n", "1", "M A ", "b", ""},
      {"user 1\t2 m\\\\x a b\n", "1\t2", "M\\X ", "a", "b"},
      {"user\n", "", " ", "", ""},
      {"user", "", " ", "", ""},
      {"user 123\n", "123", " ", "", ""},
      {"user 123 Mail\n", "123", "MAIL ", "", ""},
      {"user 123 Mail js\n", "123", "MAIL ", "js", ""},
      {"user  1 m\n", "", "1 ", "m", ""},
      {"user " + d25 + " " + m100 + " " + n25 + " " + n25 + "\n", d25.substr(0, 19),
       std::string(78, 'M') + " ", n25.substr(0, 19), n25.substr(0, 19)},
      {"user " + d25 + " " + m100 + "\n", d25.substr(0, 19), std::string(78, 'M') + " ", "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line.substr(0, 60));
    TraceCapture capture;
    std::string number = "x", mail = "x", name1 = "x", name2 = "x";
    EXPECT_EQ(adcdf_process_user({capture.tracer(), true}, c.line, {number, mail, name1, name2},
                                 {19, 79, 19, 19}),
              0);
    EXPECT_EQ(number, c.number);
    EXPECT_EQ(mail, c.mail);
    EXPECT_EQ(name1, c.name1);
    EXPECT_EQ(name2, c.name2);
  }
}

TEST(ProcessUser, UpshiftOffAndTrace) {
  TraceCapture capture;
  capture.tracer().set_debug(true);
  std::string number, mail, name1, name2;
  adcdf_process_user({capture.tracer(), false}, "user 9 Mail Sys a b\n",
                     {number, mail, name1, name2}, {19, 79, 19, 19});
  EXPECT_EQ(mail, "Mail Sys ");
  EXPECT_EQ(capture.text(),
            "-> adcdf_process_user\n-> adcdf_clean_address\n-> adcdf_special_processing\n"
            "<- adcdf_special_processing\n<- adcdf_clean_address\n<- adcdf_process_user\n");
}

}  // namespace
}  // namespace adcdf
