#include <gtest/gtest.h>

#include "convert/convert_test_support.h"
#include "convert/sections.h"

namespace adcdf {
namespace {

using namespace testing;

// A user's record is written when the next user begins and at the blank line; values not
// given for a user are those of the user before.
TEST(EkscanConverter, SeveralUsersCarryValuesOver) {
  Converted out = convert("ekscan\n",
                          "user alice smith\nuser-messages 3\nuser-size 100\ntray 1 x 2 50\n"
                          "tray 2 x 1 20\nuser bob\nuser-messages 7\ntray 1 x 4 80\n"
                          "bb-area-messages 1\nbb-area-size 2\nduration 3\nuser carol\n"
                          "tray 5 x 9 99\n\n");
  EXPECT_EQ(out.records, rec(102, "\"ALICE SMITH \",3,100,2,50,1,20,0,0,0,0,0,0,\"\",\"\"") +
                             rec(102, "\"BOB \",7,100,4,80,1,20,0,0,0,0,0,0,\"\",\"\"") +
                             rec(102, "\"CAROL \",7,100,4,80,1,20,0,0,0,0,9,99,\"\",\"\""));
  EXPECT_EQ(out.errors, "");

  // Nothing carries over into the next section.
  out = convert("ekscan\n", "user dave\n\n");
  EXPECT_EQ(out.records, rec(102, "\"DAVE \",0,0,0,0,0,0,0,0,0,0,0,0,\"\",\"\""));
}

TEST(EkscanConverter, SectionWithoutUserGivesOneBlankUser) {
  run_cases({
      {"empty", "ekscan\n", 102, "\n", "\" \",0,0,0,0,0,0,0,0,0,0,0,0,\"\",\"\"", ""},
      {"values only", "ekscan\n", 102, "user-messages 4\nuser-size\ntray 3 x 5 6\n\n",
       "\" \",4,,0,0,0,0,5,6,0,0,0,0,\"\",\"\"", ""},
  });
}

// The tray number is the second word cut to four characters, read as leading digits; a tray
// line whose number is not 1 to 5 is reported whole and changes nothing. Missing count or size
// words are written empty.
TEST(EkscanConverter, TrayLines) {
  const char* bad[] = {"tray 0 x 1 1",   "tray 6 x 1 1",  "tray 00003 x 1 1",
                       "tray abc x 1 1", "tray -1 x 1 1", "tray"};
  for (const char* line : bad) {
    SCOPED_TRACE(line);
    Converted out = convert("ekscan\n", std::string(line) + "\nuser u\n\n");
    EXPECT_EQ(out.records, rec(102, "\"U \",0,0,0,0,0,0,0,0,0,0,0,0,\"\",\"\""));
    EXPECT_EQ(out.errors, skipped(3, line));
  }
  run_cases({
      {"3x is tray 3", "ekscan\n", 102, "tray 3x y 4 5\n\n",
       "\" \",0,0,0,0,0,0,4,5,0,0,0,0,\"\",\"\"", ""},
      {"fewer than five words", "ekscan\n", 102, "tray 2 x 7\ntray 4\n\n",
       "\" \",0,0,0,0,7,,0,0,,,0,0,\"\",\"\"", ""},
      {"user needs its blank", "ekscan\n", 102, "userfoo bar\n\n",
       "\" \",0,0,0,0,0,0,0,0,0,0,0,0,\"\",\"\"", skipped(3, "userfoo bar")},
  });
}

TEST(UserSignonConverter, Sections) {
  const std::string longer = "designate-user 7 " + std::string(1000, 'n') + "\n\n";
  run_cases({
      {"empty", "user-signon\n", 103, "\n", "0,0,0,0,\" \",\" \",0,0,0,\" \",0,0,0,\" \",\"\"", ""},
      {"full", "user-signon\n", 103,
       "user 123 Main Mail System jsmith smithj\nsignon-status 1 x\nclient-type 2 y\n"
       "designate-user 45 joe bloggs\nuser-agent-id abc\nduration 5\n\n",
       "0,0,0,0,\"MAIN MAIL SYSTEM \",\"jsmith\",123,1,2,\"smithj\",0,0,45,\"JOE BLOGGS \",\"\"",
       skipped(8, "duration 5")},
      {"two values", "user-signon\n", 103, "user 5 Mail\n\n",
       "0,0,0,0,\"MAIL \",\" \",5,0,0,\" \",0,0,0,\" \",\"\"", ""},
      {"run of blanks", "user-signon\n", 103, "user 123  Mail a b\n\n",
       "0,0,0,0,\" MAIL \",\"a\",123,0,0,\"b\",0,0,0,\" \",\"\"", ""},
      // The designate name comes from the line's first 849 characters only.
      {"long designate-user", "user-signon\n", 103, longer,
       "0,0,0,0,\" \",\" \",0,0,0,\" \",0,0,7,\"" + std::string(832, 'N') + " \",\"\"", ""},
  });
}

TEST(UserSignoffConverter, Sections) {
  run_cases({
      {"empty", "user-signoff\n", 104, "\n", "0,0,0,0,\" \",\"\",0,0,0,\"\",0,0,0,\"\",\"\"", ""},
      {"full", "user-signoff\n", 104,
       "user 42 Main Mail\nsignoff-status 1 2\nduration 3 4\ndesignate-user 9 x\n"
       "user-agent-id a\n\n",
       "0,0,0,0,\"MAIN MAIL \",\"\",42,1 2,3 4,\"\",0,0,0,\"\",\"\"",
       skipped(7, "user-agent-id a")},
      {"values without text", "user-signoff\n", 104, "signoff-status\nduration\n\n",
       "0,0,0,0,\" \",\"\",0,,,\"\",0,0,0,\"\",\"\"", ""},
  });
}

TEST(RequestServerConverter, Sections) {
  run_cases({
      {"empty", "request\n", 109, "\n", "0,0,0,0,\" \",\" \",0,0,0,\" \",0,0,0,\"\",\" \"", ""},
      {"full", "request\n", 109,
       "originator-admin-cap 7\noriginator\tx\noriginator john\nrequest-name Add user\n"
       "ua-message-id U\nmta-message-id M\nua-ack-id 1\nmta-ack-id 2\nsubject s\n\n",
       "0,0,0,0,\"JOHN \",\"U\",0,0,0,\"Add user\",7,0,0,\"\",\"M\"", skipped(4, "originator\tx")},
  });
}

// The twins differ only in the keyword of column 13.
TEST(DirsyncConverters, Sections) {
  const std::string values =
      "operation add all\ncommand C\nflags F\nreload-posn 5\nexport-directory E\n"
      "import-directory I\nmax-reply-size 9\nsending-ref 3\nrequest-id R\nsubject s\n"
      "syn-timestamp t\n";
  const std::string in_line = "originator-x ann";
  const std::string out_line = "recipient bob";
  const std::string body = in_line + "\n" + out_line + "\n" + values + "\n";
  auto columns = [](const std::string& party) {
    return "add all,C,F,5,\"" + party + "\",\"E\",0,9,0,\"I\",3,R,0,\"\",\"\"";
  };
  run_cases({
      {"dirsync-in", "dirsync-in\n", 116, body, columns("ANN "), skipped(4, out_line)},
      {"dirsync-out", "dirsync-out\n", 117, body, columns("BOB "), skipped(3, in_line)},
      {"empty", "dirsync-out\n", 117, "\n", "0,0,0,0,\" \",\" \",0,0,0,\" \",0,0,0,\"\",\"\"", ""},
  });
}

}  // namespace
}  // namespace adcdf
