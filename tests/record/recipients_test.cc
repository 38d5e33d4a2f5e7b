// Recipient lines (category and cleaned address), the acknowledgement and queue lines a routing
// recipient takes with it, and user lines.
#include "record/recipients.h"

#include <gtest/gtest.h>

#include <string>

#include "stream/context.h"
#include "test_support.h"

namespace adcdf {
namespace {

using testing::Harness;
using testing::TraceCapture;

TEST(Recipients, CategoryAndCleanedAddress) {
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"recipient-to John Smith/Sales\n", "0", "JOHN SMITH/SALES "},
      {"recipient-cc a\n", "1", "A "},
      {"recipient-bcc x", "2", "X "},
      {"recipient-from y\n", "3", "Y "},
      {"recipient-To x\n", "4", "X "},
      {"recipient-toto x\n", "4", "X "},
      {"recipient-to  a-b c \n", "0", " A-B C  "},
      {"recipient-to\n", "0", ""},
      {"recipient to x\n", "4", ""},
  };
  for (const auto& [line, category, recip] : cases) {
    SCOPED_TRACE(line);
    TraceCapture capture;
    Recipient r{"9", "", "", "OLD ", false, false, 0};
    adcdf_get_recip_line({capture.tracer(), true}, line, r, 3);
    EXPECT_EQ(r.category, category);
    EXPECT_EQ(r.recip, recip);
  }
}

// A routing recipient takes the next line's word (cut to 2) as its acknowledgement request and
// the line after's text (cut to 127) as its queue, whatever their keywords; the queue sets the
// local and gateway flags by exact comparisons.
TEST(Recipients, AcknowledgementAndQueueLinesAndTheirFlags) {
  const struct {
    std::string lines;
    std::string ack, queue;
    bool local, gateway;
  } cases[] = {
      {"ack-req 1234 5\nqueue  my\\\\q \\\n", "12", " my\\q ", false, false},
      {"queue LOCAL\n\n", "LO", "", false, false},
      {"ack-req\nqueue \\LOCAL\n", "", "LOCAL", true, false},
      {"ack-req\nqueue LOCAL \n", "", "LOCAL ", false, false},
      {"ack-req\nqueue EKX400\n", "", "EKX400", false, true},
      {"ack-req\nqueue Ekx400\n", "", "Ekx400", false, false},
      {"ack-req\nqueue SMINTFC2\n", "", "SMINTFC2", false, true},
      {"ack-req\nqueue smintf\n", "", "smintf", false, false},
      {"ack-req\nqueue " + std::string(200, 'q') + "\n", "", std::string(127, 'q'), false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.lines);
    Harness h(c.lines + "next\n");
    h.ctx.line = "recipient-to Bob\n";
    h.ctx.line_number = 10;
    Recipient r{"", "old", "old", "", true, true, 0};
    adcdf_get_recip_info(h.ctx, r, 0);
    EXPECT_EQ(r.recip, "BOB ");
    EXPECT_EQ(r.ack_req, c.ack);
    EXPECT_EQ(r.queue, c.queue);
    EXPECT_EQ(r.local, c.local);
    EXPECT_EQ(r.via_gateway, c.gateway);
    EXPECT_EQ(h.ctx.line_number, 12);
  }
}

// A user line: number, mail-system name (an address), two user names, each cut to its limit;
// with fewer than four blanks the fields fill in order.
TEST(Recipients, UserLines) {
  const std::string d25(25, '7'), m100(100, 'm'), n25(25, 'n');
  const struct {
    std::string line;
    std::string number, mail, name1, name2;
  } cases[] = {
      {"user 123 Main Mail System jsmith smithj\n", "123", "MAIN MAIL SYSTEM ", "jsmith", "smithj"},
      {"user 1  a  b\n", "1", " A ", "", "b"},
      {"user 1 m a b \n", "1", "M A ", "b", ""},
      {"user 1\t2 m\\\\x a b\n", "1\t2", "M\\X ", "a", "b"},
      {"user", "", " ", "", ""},
      {"user 123 Mail js\n", "123", "MAIL ", "js", ""},
      {"user  1 m\n", "", "1 ", "m", ""},
      {"user " + d25 + " " + m100 + " " + n25 + " " + n25 + "\n", d25.substr(0, 19),
       std::string(78, 'M') + " ", n25.substr(0, 19), n25.substr(0, 19)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line.substr(0, 60));
    TraceCapture capture;
    std::string number = "x", mail = "x", name1 = "x", name2 = "x";
    adcdf_process_user({capture.tracer(), true}, c.line, {number, mail, name1, name2},
                       {19, 79, 19, 19});
    EXPECT_EQ(number + "|" + mail + "|" + name1 + "|" + name2,
              c.number + "|" + c.mail + "|" + c.name1 + "|" + c.name2);
  }
}

}  // namespace
}  // namespace adcdf
