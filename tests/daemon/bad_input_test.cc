// Bad input of every kind a mail server could write, through the running daemon: over-long
// lines, bytes 0x80-0xFF, carriage returns, NUL bytes, odd event times, a section cut off at the
// end of the file, a file that stays idle. The daemon must neither crash nor lose the section
// after the bad one, and where the rules determine them the records and error-file entries are
// checked exactly.
#include <algorithm>

#include "daemon_harness.h"

namespace daemon_test {
namespace {

const std::vector<std::string> kArgs = {"-a", "audit", "-b", "cdf", "-d"};
const std::string kTail = "0,0,0,\"\",0,0,0,\"\",\"\"\n";

// 2023-11-14 09:00:00 UTC plus 0, 1, 2 seconds, as columns 2 to 8.
const std::string kAt0 = "123,11,14,9,0,0,1699952400";
const std::string kAt1 = "123,11,14,9,0,1,1699952401";
const std::string kAt2 = "123,11,14,9,0,2,1699952402";

// A subsystem-start (105) or subsystem-stop (106) record.
std::string subsystem_record(int type, const std::string& prefix, const std::string& number,
                             const std::string& user) {
  return std::to_string(type) + "," + prefix + "," + number + ",0,0,0,\"" + user + "\",\"\"," +
         kTail;
}

// The well-formed section after the bad input, and its record.
const std::string kProbe = "subsystem-start\nh 1699952460\nsubsystem 7\nuser probe\n\n";
const std::string kProbeRecord = subsystem_record(105, "123,11,14,9,1,0,1699952460", "7", "probe");

std::string unknown(int line, const std::string& text) {
  return "Unknown audit file section: line " + std::to_string(line) + "\n" + text + "\n";
}
std::string skipped(int line, const std::string& text) {
  return "Skipped line: " + std::to_string(line) + "\nLine = " + text + "\n";
}

// "0123456789012...", so that the pieces of a long line differ.
std::string digits(size_t length) {
  std::string text;
  for (size_t i = 0; i < length; ++i) text.push_back(static_cast<char>('0' + i % 10));
  return text;
}

// `text` with every '@' made a NUL byte.
std::string with_nul(std::string text) {
  std::replace(text.begin(), text.end(), '@', '\0');
  return text;
}

struct Case {
  const char* name;
  std::string audit;                     // the bad input; the probe section follows it
  std::vector<std::string> generations;  // expected content of cdf.000, cdf.001, ...
  std::string errors;                    // expected content of cdf.ERR
};

std::vector<Case> cases() {
  const std::string h = header_record();
  std::string high;  // every byte from 0x80 to 0xFF
  for (int c = 0x80; c <= 0xFF; ++c) high.push_back(static_cast<char>(c));
  const std::string long_line = digits(2500);
  const std::string normal = "subsystem-start\nh 1699952400\nuser t\n\n";
  const std::string normal_record = subsystem_record(105, kAt0, "0", "t");
  const std::string delivery_tail = "\",\" \",0,0,0,0,0,0,0,\"\",\" \"\n";

  return {
      {"a keyword line over 1,199 characters comes in two pieces",
       "subsystem-start\nh 1699952400\nuser " + std::string(1300, 'a') + "\n\n",
       {h + subsystem_record(105, kAt0, "0", std::string(19, 'a')) + kProbeRecord, ""},
       skipped(4, std::string(106, 'a') + "\n")},

      // The piece of 1,199 characters leaves the newline alone: a blank line, which ends the
      // section, and the section's next line is an unknown section name.
      {"a keyword line of exactly 1,199 characters",
       "subsystem-start\nh 1699952400\nuser " + std::string(1194, 'b') + "\nsubsystem 5\n\n",
       {h + subsystem_record(105, kAt0, "0", std::string(19, 'b')) + kProbeRecord, ""},
       unknown(5, "subsystem 5\n")},

      {"over-long lines between sections",
       long_line + "\n" + std::string(1199, 'y') + "\n",
       {h + kProbeRecord, ""},
       unknown(1, long_line.substr(0, 1199)) + unknown(2, long_line.substr(1199, 1199)) +
           unknown(3, long_line.substr(2398) + "\n") + unknown(4, std::string(1199, 'y'))},

      // Upshift changes a-z only. An address is cut to leave room for its trailing blank.
      {"bytes 0x80 to 0xFF in addresses",
       "delivery\nh 1699952400\noriginator ab" + high + "yz\nrecipient-to x" + high +
           "\n\ndelivery\nh 1699952401\noriginator " + std::string(900, '\xe9') +
           "\nrecipient-cc " + std::string(900, '\xfc') + "\n\n",
       {h + "108," + kAt0 + ",0,0,0,0,\"AB" + high + "YZ " + delivery_tail + "504," + kAt0 +
            ",\"AB" + high + "YZ \",\" \",0,\"X" + high + " \"\n" + "108," + kAt1 + ",0,0,0,0,\"" +
            std::string(848, '\xe9') + " " + delivery_tail + "504," + kAt1 + ",\"" +
            std::string(848, '\xe9') + " \",\" \",0,\"" + std::string(848, '\xfc') + " \"\n" +
            kProbeRecord,
        ""},
       ""},

      // Only "\n" is a blank line and only the blank separates words: a carriage return stays
      // part of a name line (an unknown section), of a word and of a line that looks blank.
      {"carriage returns before line feeds",
       "subsystem-start\r\nh 1699952400\r\nuser x\r\n\r\n"
       "subsystem-start\nh 1699952401\r\nsubsystem 4\r\n\r\nuser cr\r\n\n",
       {h + subsystem_record(105, kAt1, "4\r", "cr\r") + kProbeRecord, ""},
       unknown(1, "subsystem-start\r\n") + unknown(2, "h 1699952400\r\n") +
           unknown(3, "user x\r\n") + unknown(4, "\r\n") + skipped(8, "\r\n")},

      // A line ends at its first NUL byte, as a C string does; the line is still counted once.
      {"NUL bytes inside lines",
       with_nul(
           // A keyword line cut short, a line that reads as empty, a number cut short.
           "subsystem-start\nh 1699952400\nuser ab@cd\n@junk\nsubsystem 3@9\n\n"
           // A name line without its newline, and an empty one: unknown sections.
           "routing@\n@\n"
           // An empty header line ends the section at once; its next line is unknown.
           "subsystem-start\n@h 1699952401\nuser q\n\n"
           // A header without a time skips the section, and an empty line ends the skip.
           "subsystem-stop\nh\n@x\nuser zz\n\n"
           // A NUL byte inside the first piece of an over-long line.
           "subsystem-stop\nh 1699952402\nuser @") +
           std::string(2000, 'n') + "\n\n",
       {h + subsystem_record(105, kAt0, "3", "ab") + subsystem_record(106, kAt2, "0", " ") +
            kProbeRecord,
        ""},
       skipped(4, "") + unknown(7, "routing") + unknown(8, "") + unknown(11, "user q\n") +
           unknown(16, "user zz\n") + skipped(21, std::string(807, 'n') + "\n")},

      // A time that is not a number reads as 0: converted, in 1970, and the next section
      // starts a new generation.
      {"an event time that is not a number",
       "subsystem-start\nh abc\nuser t\n\n",
       {h + kProbeRecord, h + "105,70,1,1,0,0,0,0,0,0,0,0,\"t\",\"\"," + kTail, ""},
       ""},

      {"an event time with characters after its digits",
       "subsystem-start\nh 1699952400xyz\nuser t\n\nsubsystem-stop\nh +1699952401\nuser u\n\n",
       {h + normal_record + subsystem_record(106, kAt1, "0", "u") + kProbeRecord, ""},
       ""},

      // Before the checkpoint 0: skipped, and the last date stays, so no new generation.
      {"a negative event time",
       normal + "subsystem-start\nh -86400\nuser n\n\n",
       {h + normal_record + kProbeRecord, ""},
       ""},

      // Out of the 64-bit range (clamped) or of the clock's: skipped, the last date unchanged.
      {"event times that the clock cannot convert",
       normal + "subsystem-start\nh 99999999999999999999\nuser a\n\n" +
           "subsystem-stop\nh -99999999999999999999\nuser b\n\n" +
           "subsystem-start\nh 67768036191676800\nuser c\n\n" +
           "subsystem-stop\nh -67768040609740801\nuser d\n\n",
       {h + normal_record + kProbeRecord, ""},
       ""},

      // The year 2147485547: no field of the next section's date is greater, so no rotation.
      {"the last second the clock can convert",
       "subsystem-start\nh 67768036191676799\nuser t\n\n",
       {h + "105,2147483647,12,31,23,59,59,67768036191676799,0,0,0,0,\"t\",\"\"," + kTail +
            kProbeRecord,
        ""},
       ""},
  };
}

TEST(DaemonBadInput, NoCrashAndTheNextSectionIsConverted) {
  for (const Case& c : cases()) {
    SCOPED_TRACE(c.name);
    Sandbox box;
    box.write("audit", c.audit + kProbe);
    Daemon daemon(box, kArgs);
    ASSERT_TRUE(daemon.wait_err("waiting...\n"));
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(daemon.out(), "");
    std::map<std::string, std::string> expected = {{"cdf.ERR", c.errors}};
    for (size_t i = 0; i < c.generations.size(); ++i) {
      expected["cdf.00" + std::to_string(i)] = c.generations[i];
    }
    EXPECT_EQ(box.files(), expected);
  }
}

std::string without_waiting(std::string text) {
  for (size_t at; (at = text.find("waiting...\n")) != std::string::npos;) text.erase(at, 11);
  return text;
}

std::vector<std::string> directory(const Sandbox& box) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(box.work())) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// A section cut off at the end of the file, completed by later appends, and a file that does
// not grow for over six seconds in between: the daemon keeps polling, writes nothing meanwhile,
// and converts the section once its blank line is there.
TEST(DaemonBadInput, CutOffSectionWaitsThroughALongIdleSpell) {
  Sandbox box;
  box.write("audit", "subsystem-start\nh 1699952400\nuser ann\n\nsubsystem-stop\n");
  Daemon daemon(box, kArgs);
  const std::string first = header_record() + subsystem_record(105, kAt0, "0", "ann");
  ASSERT_TRUE(daemon.wait_file("cdf.000", first));
  ASSERT_TRUE(daemon.wait_err("waiting...\n"));
  const auto files = box.files();
  const std::vector<std::string> names = {"audit", "cdf.000", "cdf.001", "cdf.ERR", "cdf.POS"};

  box.append("audit", "h 16999524");  // half a header line
  ASSERT_TRUE(daemon.wait_err("waiting...\n", 2));
  EXPECT_EQ(box.files(), files);
  box.append("audit", "01\nsubsys");  // half a keyword line
  ASSERT_TRUE(daemon.wait_err("waiting...\n", 3));
  // Three more polls: over six seconds without a byte appended.
  ASSERT_TRUE(daemon.wait_err("waiting...\n", 6));
  EXPECT_EQ(box.files(), files);
  EXPECT_EQ(directory(box), names);

  box.append("audit", "tem 9\nuser cut\nduration 5\n\n" + kProbe);
  EXPECT_TRUE(
      daemon.wait_file("cdf.000", first + subsystem_record(106, kAt1, "9", "cut") + kProbeRecord));
  EXPECT_EQ(daemon.stop(), 0);
  EXPECT_EQ(daemon.out(), "");
  EXPECT_EQ(box.read("cdf.ERR"), "");
  EXPECT_EQ(directory(box), names);

  // Read whole, the same file gives the same trace, apart from the waiting lines.
  Sandbox whole;
  whole.write("audit", box.read("audit"));
  Daemon again(whole, kArgs);
  ASSERT_TRUE(again.wait_err("waiting...\n"));
  EXPECT_EQ(again.stop(), 0);
  EXPECT_EQ(without_waiting(again.err()), without_waiting(daemon.err()));
  EXPECT_EQ(whole.files(), box.files());
}

}  // namespace
}  // namespace daemon_test
