// The converters, one section at a time: the records each writes (columns from 9 on) and the
// lines it reports as skipped, for the keyword rules that tell them apart (the conformance cases
// hold every column of each); and where each counts. (A section at the end of the file waits
// for its lines: ProcessLoop.)
#include <gtest/gtest.h>

#include "test_support.h"

namespace adcdf {
namespace {

using namespace testing;

constexpr long kTime = 1364913005;  // 2013-04-02 14:30:05 UTC

struct Converted {
  std::string records;
  std::string errors;
};

// Converts one section with header time kTime and keyword lines `body` (ending with its blank
// line), as the first section of the file: its keyword lines are numbered from 3. Checks that
// the converter stops right after the blank line.
Converted convert(std::string_view section, const std::string& body) {
  ::setenv("TZ", "UTC", 1);
  ::tzset();
  Harness h("hdr " + std::to_string(kTime) + "\n" + body + "after\n");
  h.ctx.last = kNoRotation;
  h.ctx.line_number = 1;
  h.convert(section);
  EXPECT_EQ(h.input.read_line().value_or("<end>"), "after\n");
  return {std::string(h.ctx.output.records.view()), std::string(h.ctx.output.errors.view())};
}

// A record of the section converted by convert(): its type, the event's columns, `columns`.
std::string rec(int type, const std::string& columns) {
  return std::to_string(type) + ",113,4,2,14,30,5,1364913005," + columns + "\n";
}

std::string skipped(int lineno, const std::string& line) {
  return "Skipped line: " + std::to_string(lineno) + "\nLine = " + line + "\n\n";
}

struct Section {
  const char* rule;
  std::string_view name_line;
  std::string body;     // the keyword lines and the blank line
  std::string records;  // rec() lines
  std::string errors;
};

TEST(Converters, RecordsOfOneSection) {
  const std::string long_origin = "originator " + std::string(900, 'a') + "\n\n";
  const std::string dirsync =
      "operation add all\ncommand C\nflags F\nreload-posn 5\n"
      "export-directory E\nimport-directory I\nmax-reply-size 9\n"
      "sending-ref 3\nrequest-id R\nsubject s\nsyn-timestamp t\n";
  const Section sections[] = {
      {"routing: the two lines after a recipient belong to it, whatever they hold", "routing\n",
       "recipient-cc bob\nsubject X\ntype 9\npriority 3\n\n",
       rec(101, "0,3,0,0,\" \",\" \",0,0,x,\"\",0,0,x,\"\",\" \",\" \",0,1") +
           rec(503, "\" \",\" \",0,0,1,X,\"9\",\"BOB \",0,0"),
       ""},
      {"routing: commas and quotes unchanged", "routing\n",
       "ua-message-id a,\"b\"\nsubject Hi, \"there\"\nmta-message-id m,1\n\n",
       rec(101, "0,0,0,0,\" \",\"a,\"b\"\",0,0,x,\"\",0,0,x,\"\",\"m,1\",\"Hi, \"there\"\",0,0"),
       ""},
      {"delivery: a reason belongs to the recipient before it, the last to the section",
       "delivery\n",
       "non-delivery-reason 7\noriginator bob\nrecipient-to a\nrecipient-cc b\n"
       "non-delivery-reason 42x\nrecipient-to c\nnon-delivery-reason abc\nnew-ua-message-id n\n\n",
       rec(108, "0,0,0,0,\"BOB \",\" \",abc,0,0,0,0,0,0,\"\",\" \"") +
           rec(504, "\"BOB \",\" \",0,\"A \"") + rec(504, "\"BOB \",\" \",42,\"B \"") +
           rec(504, "\"BOB \",\" \",0,\"C \""),
       ""},
      {"bulletin: escapes removed, recipients not taken", "bulletin\n",
       "type 2\noriginator ann/hq\nbulletin-name a,\\b \"c\"\nrecipient-to x\n\n",
       rec(118, "2,0,0,0,\"ANN/HQ \",\" \",0,0,0,\"a,b \"c\"\",0,0,0,\"\",\"\""),
       skipped(6, "recipient-to x")},
      {"subsystem-start: later lines win, values cut, duration not taken", "subsystem-start\n",
       "subsystem 1\nuser-id first\nsubsystem 123456\nuser abcdefghijklmnopqrstuvwxyz\n"
       "duration 5\n\n",
       rec(105, "1234,0,0,0,\"abcdefghijklmnopqrs\",\"\",0,0,0,\"\",0,0,0,\"\",\"\""),
       skipped(7, "duration 5")},
      {"x400-out: the first originator rule starts afresh", "x400-out\n", "originator third\n\n",
       rec(115, "0,0,0,0,\"THIRD \",\" \",\" \",0,0,\"\",0,0,0,\"\",\" \",\"\",0,0"), ""},
      {"unix-in: a long originator keeps what the address buffer passes", "unix-in\n", long_origin,
       rec(110, "0,0,0,0,\"" + std::string(849, 'A') + " \",\" \",0,0,0,\"\",0,0,0,\"\",\"\""), ""},
      {"x400-in: the same originator loses one more character", "x400-in\n", long_origin,
       rec(114, "0,0,0,0,\"" + std::string(848, 'A') + " \",\" \",\" \",0,0,\"\",0,0,0,\"\",\" \""),
       ""},
      {"fax: one record per recipient with the section's final values", "fax\n",
       "priority 1\nsensitivity 2\nimportance 3\noriginator one\nrecipient-to ann\n"
       "originator two\nua-message-id UA\nrecipient-cc bob\nrecipient-memo\nduration 12\n"
       "non-delivery-reason 5\nretries 2\nsent-pages 9\nsent-time 10:00 am\nmta-message-id M\n\n",
       rec(107, "0,1,2,3,\"TWO \",\"UA\",5,12,0,\"ANN \",2,9,\"10:00 am\",\"\",\"M\"") +
           rec(107, "0,1,2,3,\"TWO \",\"UA\",5,12,1,\"BOB \",2,9,\"10:00 am\",\"\",\"M\"") +
           rec(107, "0,1,2,3,\"TWO \",\"UA\",5,12,4,\" \",2,9,\"10:00 am\",\"\",\"M\""),
       ""},
      {"fax: no recipient, no record", "fax\n", "originator o\nbogus\n\n", "", skipped(4, "bogus")},
      {"sms-out: the reason comes before the size", "sms-out\n",
       "message-size 1234 5\nnon-delivery-reason 5\noriginator x\n\n",
       rec(120, "\"\",0,0,0,\"\",\"\",5,1234,0,\"\",0,0,0,\"\",\"\""), skipped(5, "originator x")},
      {"ekscan: a user is written when the next begins, values carried over", "ekscan\n",
       "user alice smith\nuser-messages 3\nuser-size 100\ntray 1 x 2 50\ntray 2 x 1 20\n"
       "user bob\nuser-messages 7\ntray 1 x 4 80\nbb-area-messages 1\nuser carol\n"
       "tray 3x y 9 99\ntray 4\n\n",
       rec(102, "\"ALICE SMITH \",3,100,2,50,1,20,0,0,0,0,0,0,\"\",\"\"") +
           rec(102, "\"BOB \",7,100,4,80,1,20,0,0,0,0,0,0,\"\",\"\"") +
           rec(102, "\"CAROL \",7,100,4,80,1,20,9,99,,,0,0,\"\",\"\""),
       ""},
      {"ekscan: no user gives one blank user; a tray number outside 1-5 is skipped", "ekscan\n",
       "tray 6 x 1 1\ntray 00003 x 1 1\nuserfoo bar\nuser-size\n\n",
       rec(102, "\" \",0,,0,0,0,0,0,0,0,0,0,0,\"\",\"\""),
       skipped(3, "tray 6 x 1 1") + skipped(4, "tray 00003 x 1 1") + skipped(5, "userfoo bar")},
      {"user-signon: the user line's four values, a run of blanks kept", "user-signon\n",
       "user 123  Mail a b\nsignon-status 1 x\nclient-type 2 y\ndesignate-user 45 joe bloggs\n"
       "duration 5\n\n",
       rec(103, "0,0,0,0,\" MAIL \",\"a\",123,1,2,\"b\",0,0,45,\"JOE BLOGGS \",\"\""),
       skipped(7, "duration 5")},
      {"user-signon: two values only", "user-signon\n", "user 5 Mail\n\n",
       rec(103, "0,0,0,0,\"MAIL \",\" \",5,0,0,\" \",0,0,0,\" \",\"\""), ""},
      {"user-signoff: values without text stay empty", "user-signoff\n",
       "user 42 Main Mail\nsignoff-status\nduration 3 4\nuser-agent-id a\n\n",
       rec(104, "0,0,0,0,\"MAIN MAIL \",\"\",42,,3 4,\"\",0,0,0,\"\",\"\""),
       skipped(6, "user-agent-id a")},
      {"request: a tab is not the keyword's blank", "request\n",
       "originator-admin-cap 7\noriginator\tx\noriginator john\nrequest-name Add user\n"
       "ua-message-id U\nmta-message-id M\n\n",
       rec(109, "0,0,0,0,\"JOHN \",\"U\",0,0,0,\"Add user\",7,0,0,\"\",\"M\""),
       skipped(4, "originator\tx")},
      {"dirsync-in: its party is the originator", "dirsync-in\n",
       "originator-x ann\nrecipient bob\n" + dirsync + "\n",
       rec(116, "add all,C,F,5,\"ANN \",\"E\",0,9,0,\"I\",3,R,0,\"\",\"\""),
       skipped(4, "recipient bob")},
      {"dirsync-out: its party is the recipient", "dirsync-out\n",
       "originator-x ann\nrecipient bob\n" + dirsync + "\n",
       rec(117, "add all,C,F,5,\"BOB \",\"E\",0,9,0,\"I\",3,R,0,\"\",\"\""),
       skipped(3, "originator-x ann")},
  };
  for (const Section& s : sections) {
    SCOPED_TRACE(s.rule);
    Converted out = convert(s.name_line, s.body);
    EXPECT_EQ(out.records, s.records);
    EXPECT_EQ(out.errors, s.errors);
  }
}

// Recipients are written in reading order, each with its own category, acknowledgement request,
// queue and flags, and with the section's final values, also when the store keeps none of them
// in memory (a limit of 0: all but the last go through its spill file). One converter takes the
// sections in turn, their sizes largest first, so a section that reuses a bigger one's recipient
// slots shows any leftovers; a delivery reason does not carry over into a reused slot.
TEST(Converters, RecipientsInReadingOrderInReusedSlots) {
  const char* kinds[] = {"to", "cc", "bcc", "from", "reply"};
  const std::pair<const char*, const char*> queues[] = {{"LOCAL", "1,0"},
                                                        {"ekx400-gw", "0,1"},
                                                        {"SMINTFC", "0,1"},
                                                        {"local", "0,0"},
                                                        {"Ekx400", "0,0"}};
  const std::string header = "hdr " + std::to_string(kTime) + "\n";
  std::string audit, expected;
  for (int n : {300, 25, 1, 0}) {
    const std::string size = n >= 7 ? "77" : "0";
    audit += header;
    expected += rec(101, "0,0,0,0,\" \",\" \",0," + size + ",x,\"\",0,0,x,\"\",\" \",\" \",0," +
                             std::to_string(n));
    for (int i = 0; i < n; ++i) {
      const auto& [queue, flags] = queues[i % 5];
      audit += std::string("recipient-") + kinds[i % 5] + " r" + std::to_string(i) + "\nack-req " +
               std::to_string(i % 10) + "\nqueue " + queue + "\n";
      if (i % 7 == 6) audit += "message-size 77\nua-ack-id 4\n";
      expected += rec(503, "\" \",\" \",0," + size + "," + std::to_string(i % 5) + "," +
                               std::to_string(i % 10) + ",\"" + queue + "\",\"R" +
                               std::to_string(i) + " \"," + flags);
    }
    audit += "\n";
  }
  audit += header + "recipient-to a\nnon-delivery-reason 9\n\n" + header + "recipient-to a\n\n";
  expected +=
      rec(108, "0,0,0,0,\" \",\" \",9,0,0,0,0,0,0,\"\",\" \"") + rec(504, "\" \",\" \",9,\"A \"") +
      rec(108, "0,0,0,0,\" \",\" \",0,0,0,0,0,0,0,\"\",\" \"") + rec(504, "\" \",\" \",0,\"A \"");
  ::setenv("TZ", "UTC", 1);
  ::tzset();
  for (size_t limit : {RecipientStore::kMemoryLimit, size_t{0}}) {
    Harness h(audit);
    h.ctx.last = kNoRotation;
    h.converter.work().recipients.memory_limit = limit;
    for (const char* name :
         {"routing\n", "routing\n", "routing\n", "routing\n", "delivery\n", "delivery\n"}) {
      h.convert(name);
    }
    EXPECT_EQ(h.ctx.output.records.view(), expected) << limit;
  }
}

// Where each converter counts its section: before the header is read (a section that lies
// before the checkpoint is counted) or only once the section has been accepted. Either way a
// skipped section writes nothing and is read to its blank line.
TEST(Converters, SectionsBeforeTheCheckpointCountOnlyWhereCountedBeforeTheHeader) {
  const std::pair<const char*, bool> kinds[] = {
      {"Ekscan", true},       {"Subsystem-start", true}, {"Subsystem-stop", true},
      {"User-signon", false}, {"User-signoff", false},   {"Routing", true},
      {"Fax-gateway", true},  {"Delivery", true},        {"Request-server", true},
      {"Unix-in", true},      {"Unix-out", true},        {"Desk-in", false},
      {"Desk-out", false},    {"X400-in", false},        {"X400-out", true},
      {"SMS-in", false},      {"SMS-out", false},        {"Bulletin", true},
      {"DirSync-in", false},  {"DirSync-out", false}};
  for (const auto& [label, counts_skipped] : kinds) {
    SCOPED_TRACE(label);
    std::string_view name_line;
    for (const SectionKind& kind : kKinds) {
      if (kind.label == label) name_line = kind.name_line;
    }
    Harness h("hdr 99\nrecipient-to a\nbogus\n\nhdr 100\n\nnext\n");
    h.ctx.last = kNoRotation;
    h.ctx.checkpoint = 100;
    h.convert(name_line);
    EXPECT_EQ(h.counted(label), counts_skipped ? 1 : 0);
    EXPECT_TRUE(h.ctx.output.complete_size() == 0 && !h.ctx.output.rotation);
    h.convert(name_line);
    EXPECT_EQ(h.counted(label), counts_skipped ? 2 : 1);
    EXPECT_EQ(h.input.read_line().value_or("<end>"), "next\n");
  }
}

}  // namespace
}  // namespace adcdf
