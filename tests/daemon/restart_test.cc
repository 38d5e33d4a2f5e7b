// Restarting on an existing current generation: the checkpoint, the torn last line, and a
// restart after the daemon was killed in the middle of its work.
#include "daemon_harness.h"

namespace daemon_test {
namespace {

const std::string kTail = "0,0,0,\"\",0,0,0,\"\",\"\"\n";

TEST(DaemonRestart, ContinuesAfterTheNewestRecordOfTheCurrentGeneration) {
  Sandbox box;
  const std::string kept = header_record() +
                           "105,123,11,14,9,0,0,1699952400,1,0,0,0,\"ann\",\"\"," + kTail +
                           "106,123,11,14,10,0,0,1699956000,2,0,0,0,\" \",\"\"," + kTail;
  // A record cut off by a crash follows the last complete line.
  box.write("cdf.000", kept + "105,123,11,14,10,0,5,16999");
  box.write("cdf.001", "older\n");
  // Sections before the checkpoint: skipped without error-file entries; subsystem sections are
  // counted all the same, sign-on sections are not.
  box.write("audit",
            "subsystem-start\nh 1699952400\nsubsystem 1\nuser ann\nbogus\n\n"
            "user-signon\nh 1699955000\nuser 1 MAIL a b\n\n");
  Daemon daemon(box, {"-a", "audit", "-b", "cdf", "-d"});
  ASSERT_TRUE(daemon.wait_err("waiting...\n"));
  // The torn bytes are gone at once, although nothing has been appended.
  EXPECT_EQ(box.read("cdf.000"), kept);
  EXPECT_NE(daemon.err().find("File does exist: cdf.000\nCheck point time: 1699956000\n"),
            std::string::npos);

  box.append("audit",
             // The checkpoint's own second is converted again.
             "subsystem-stop\nh 1699956000\nsubsystem 2\n\n"
             // Same day: appended to the current generation. A first word that begins with
             // "user" is a user line; "subsystem" needs its blank.
             "subsystem-start\nh 1699959600 z\nusername bob smith\nsubsystem\t9\nsubsystems 4\n"
             "subsystem 12\nduration 3\n\n"
             "subsystem-stop\nh 1699959601\nduration 3\nuser-id 77 x\n\n");
  const std::string added = "106,123,11,14,10,0,0,1699956000,2,0,0,0,\" \",\"\"," + kTail +
                            "105,123,11,14,11,0,0,1699959600,12,0,0,0,\"bob\",\"\"," + kTail +
                            "106,123,11,14,11,0,1,1699959601,0,0,0,0,\"77\",\"\"," + kTail;
  ASSERT_TRUE(daemon.wait_file("cdf.000", kept + added)) << box.read("cdf.000");
  EXPECT_EQ(daemon.stop(), 0);
  EXPECT_EQ(
      box.files(),
      (std::map<std::string, std::string>{
          {"cdf.000", kept + added},
          {"cdf.001", "older\n"},
          {"cdf.ERR",
           "Skipped line: 18\nLine = subsystem\t9\n\nSkipped line: 19\nLine = subsystems 4\n\n"
           "Skipped line: 21\nLine = duration 3\n\n"}}));
  EXPECT_NE(daemon.err().find(statistics({{"Subsystem-start", 2}, {"Subsystem-stop", 2}})),
            std::string::npos);
  EXPECT_EQ(daemon.out(), "");
}

// The prefix "105,<local date and time>,<seconds>," of `seconds` in UTC.
std::string prefix(int type, long seconds) {
  time_t t = seconds;
  struct tm utc {};
  ::gmtime_r(&t, &utc);
  char text[80];
  std::snprintf(text, sizeof text, "%d,%d,%d,%d,%d,%d,%d,%ld,", type, utc.tm_year, utc.tm_mon + 1,
                utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, seconds);
  return text;
}

TEST(DaemonRestart, KilledMidRunLosesNoRecordAndTearsNone) {
  constexpr long kFirst = 1699920000;  // 2023-11-14 00:00:00 UTC
  constexpr int kSections = 20000;
  std::string audit;
  std::vector<std::string> expected;  // one entry per section: its three records
  for (int i = 0; i < kSections; ++i) {
    long t = kFirst + i;
    audit += "routing\nh " + std::to_string(t) +
             "\noriginator o/x\nrecipient-to r1\nack-req 1\nqueue LOCAL\nrecipient-cc r2\n"
             "ack-req 0\nqueue ekx400-gw\nsubject s " +
             std::to_string(i) + "\n\n";
    std::string common = "\"O/X \",\" \",0,0,";
    expected.push_back(prefix(101, t) + "0,0,0,0," + common + "x,\"\",0,0,x,\"\",\" \",\"s " +
                       std::to_string(i) + "\",0,2\n" + prefix(503, t) + common +
                       "0,1,\"LOCAL\",\"R1 \",1,0\n" + prefix(503, t) + common +
                       "1,0,\"ekx400-gw\",\"R2 \",0,1\n");
  }
  Sandbox box;
  const size_t half = audit.find("routing\nh " + std::to_string(kFirst + kSections / 2) + "\n");
  box.write("audit", audit.substr(0, half));
  {
    Daemon daemon(box, {"-a", "audit", "-b", "cdf"});
    // Kill it once a good part of the first half is in the file, while it is still writing.
    ASSERT_TRUE(eventually(
        [&] {
          return fs::exists(box.path("cdf.000")) && fs::file_size(box.path("cdf.000")) > 500000;
        },
        60));
    daemon.signal(SIGKILL);
    EXPECT_EQ(daemon.wait_exit(), 128 + SIGKILL);
  }
  box.append("audit", audit.substr(half));
  Daemon daemon(box, {"-a", "audit", "-b", "cdf"});
  const std::string& last = expected.back();
  ASSERT_TRUE(eventually(
      [&] {
        std::string out = box.read("cdf.000");
        return out.size() >= last.size() &&
               out.compare(out.size() - last.size(), last.size(), last) == 0;
      },
      60));
  EXPECT_EQ(daemon.stop(), 0);

  // Every section's records, in order, whole; only the section of the checkpoint's second may
  // appear twice in a row (the records of the second the daemon was killed in are written again).
  std::string out = box.read("cdf.000");
  const std::string header = header_record();
  ASSERT_EQ(out.compare(0, header.size(), header), 0);
  size_t at = header.size();
  int repeated = 0;
  for (int i = 0; i < kSections; ++i) {
    ASSERT_EQ(out.compare(at, expected[i].size(), expected[i]), 0)
        << "section " << i << " at offset " << at << ": " << out.substr(at, 300);
    at += expected[i].size();
    if (out.compare(at, expected[i].size(), expected[i]) == 0) {
      ++repeated;
      at += expected[i].size();
    }
  }
  EXPECT_EQ(at, out.size());
  EXPECT_LE(repeated, 1);
  EXPECT_EQ(box.read("cdf.001"), "");
  EXPECT_EQ(box.read("cdf.ERR"), "");
}

}  // namespace
}  // namespace daemon_test
