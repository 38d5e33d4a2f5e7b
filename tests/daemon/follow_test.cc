// The daemon following its audit file while it grows, and its signals: SIGTERM between and
// inside sections, SIGUSR1.
#include "daemon_harness.h"

namespace daemon_test {
namespace {

const std::vector<std::string> kDebugArgs = {"-a", "audit", "-b", "cdf", "-d"};
const std::string kTail = "0,0,0,\"\",0,0,0,\"\",\"\"\n";
const char kEnd[] = "<- adcdf_process_file\n<- main: ADCDF Daemon Outer Block\n";

std::string without_waiting(std::string text) {
  for (size_t at; (at = text.find("waiting...\n")) != std::string::npos;) text.erase(at, 11);
  return text;
}

TEST(DaemonFollow, LinesAndSectionsSplitAcrossAppends) {
  Sandbox box;
  box.write("audit", "");
  Daemon daemon(box, kDebugArgs);
  ASSERT_TRUE(daemon.wait_err("waiting...\n"));
  // The process-list entry names the running daemon.
  EXPECT_EQ(read_file(box.root() / "ekadcdf.pid"), std::to_string(daemon.pid()) + "\n");

  // A name line and half a header word: the converter waits for the rest of the header instead
  // of giving the section up, and the half word is held back until its line is complete.
  box.append("audit", "subsystem-stop\nh 16999");
  ASSERT_TRUE(daemon.wait_err("-> adcdf_get_generic\n"));
  EXPECT_EQ(daemon.err().find("pstr"), std::string::npos);
  box.append("audit", "52400 x\nsubsystem 7\nuser al");
  ASSERT_TRUE(daemon.wait_err("-> adcdf_get_item\n"));
  EXPECT_NE(daemon.err().find("pstr = 1699952400\nldate = 1699952400\n"), std::string::npos);
  EXPECT_EQ(count_of(daemon.err(), "-> adcdf_get_item\n"), 1u);
  box.append("audit", "ice\nduration 5\n");
  ASSERT_TRUE(daemon.wait_err("-> adcdf_get_item\n", 2));
  // No record until the section's blank line has arrived.
  EXPECT_EQ(box.files(), (std::map<std::string, std::string>{{"cdf.000", ""}, {"cdf.ERR", ""}}));
  const std::string first =
      header_record() + "106,123,11,14,9,0,0,1699952400,7,0,0,0,\"alice\",\"\"," + kTail;
  // The blank line, then a name line broken in two.
  box.append("audit", "\nsubsys");
  ASSERT_TRUE(daemon.wait_file("cdf.000", first)) << box.read("cdf.000");
  box.append("audit", "tem-start\nh 1699952401\nuser bob\n\n");
  ASSERT_TRUE(daemon.wait_file(
      "cdf.000", first + "105,123,11,14,9,0,1,1699952401,0,0,0,0,\"bob\",\"\"," + kTail));

  // SIGTERM while waiting: statistics, nothing on standard output, status 0.
  EXPECT_EQ(daemon.stop(), 0);
  EXPECT_EQ(daemon.out(), "");
  EXPECT_EQ(box.files(), (std::map<std::string, std::string>{
                             {"cdf.000", box.read("cdf.000")}, {"cdf.001", ""}, {"cdf.ERR", ""}}));
  std::string err = daemon.err();
  EXPECT_NE(err.find("gszLine: \n\nStatistics:"), std::string::npos);
  EXPECT_NE(err.find(counted("Subsystem-start", 1) + "Subsystem-stop         1\n"),
            std::string::npos);
  EXPECT_TRUE(err.ends_with(kEnd));
  EXPECT_FALSE(fs::exists(box.root() / "ekadcdf.pid"));

  // The same file read whole gives the same trace, apart from the waiting lines.
  Sandbox whole;
  whole.write("audit", box.read("audit"));
  Daemon again(whole, kDebugArgs);
  ASSERT_TRUE(again.wait_err("waiting...\n"));
  EXPECT_EQ(again.stop(), 0);
  EXPECT_EQ(without_waiting(again.err()), without_waiting(err));
  EXPECT_EQ(whole.files(), box.files());
}

// Starts a daemon that converts one section, then appends `partial` (a section without its blank
// line), waits for `reached` on standard error and stops the daemon: the section is abandoned and
// the files are exactly as they were before it. Returns the daemon's standard error.
std::string expect_abandoned(const std::string& partial, const std::string& reached, Sandbox& box) {
  box.write("audit", "subsystem-start\nh 1699952400\nuser ann\n\n");
  Daemon daemon(box, kDebugArgs);
  EXPECT_TRUE(daemon.wait_file(
      "cdf.000", header_record() + "105,123,11,14,9,0,0,1699952400,0,0,0,0,\"ann\",\"\"," + kTail));
  EXPECT_TRUE(daemon.wait_err("waiting...\n"));
  auto before = box.files();
  box.append("audit", partial);
  EXPECT_TRUE(daemon.wait_err(reached));
  EXPECT_EQ(daemon.stop(), 0);
  EXPECT_EQ(daemon.out(), "");
  EXPECT_EQ(box.files(), before);
  EXPECT_EQ(box.read("cdf.ERR"), "");
  std::string err = daemon.err();
  EXPECT_NE(err.find(counted("Subsystem-start", 1)), std::string::npos);
  EXPECT_TRUE(err.ends_with(kEnd));
  return err;
}

TEST(DaemonFollow, SigtermInsideASectionThatChangesTheDayRotatesNothing) {
  Sandbox box;
  std::string err =
      expect_abandoned("subsystem-stop\nh 1700006400\nbogus line\n", "ldate = 1700006400\n", box);
  // The rotation was decided, and traced, when the header was read.
  EXPECT_EQ(count_of(err, "Looking for: cdf.000\n"), 2u);
  // A restart resumes at the abandoned section's name line: it converts that section once, into
  // the new day's generation, and nothing before it again.
  box.append("audit", "\n");
  Daemon daemon(box, {"-a", "audit", "-b", "cdf"});
  const std::string rotated =
      header_record() + "106,123,11,15,0,0,0,1700006400,0,0,0,0,\" \",\"\"," + kTail;
  ASSERT_TRUE(daemon.wait_file("cdf.000", rotated));
  EXPECT_EQ(daemon.stop(), 0);
  const std::string ann = "105,123,11,14,9,0,0,1699952400,0,0,0,0,\"ann\",\"\"," + kTail;
  EXPECT_EQ(box.files(), (std::map<std::string, std::string>{
                             {"cdf.000", rotated},
                             {"cdf.001", header_record() + ann},
                             {"cdf.002", ""},
                             {"cdf.ERR", "Skipped line: 7\nLine = bogus line\n\n"}}));
}

TEST(DaemonFollow, Sigusr1StartsANewGenerationAtTheNextSection) {
  Sandbox box;
  const std::string a = "105,123,11,14,9,0,0,1699952400,0,0,0,0,\"ann\",\"\"," + kTail;
  box.write("audit", "subsystem-start\nh 1699952400\nuser ann\n\n");
  Daemon daemon(box, kDebugArgs);
  ASSERT_TRUE(daemon.wait_file("cdf.000", header_record() + a));
  ASSERT_TRUE(daemon.wait_err("waiting...\n"));
  // While the daemon waits, the request changes nothing.
  auto before = box.files();
  daemon.signal(SIGUSR1);
  size_t waits = count_of(daemon.err(), "waiting...\n");
  ASSERT_TRUE(daemon.wait_err("waiting...\n", waits + 1));
  EXPECT_EQ(box.files(), before);

  // The next section opens a new generation, although its day is the same.
  const std::string b = "106,123,11,14,9,1,0,1699952460,0,0,0,0,\" \",\"\"," + kTail;
  box.append("audit", "subsystem-stop\nh 1699952460\n\n");
  ASSERT_TRUE(daemon.wait_file("cdf.000", header_record() + b));
  EXPECT_EQ(box.read("cdf.001"), header_record() + a);

  // The handler stays installed: a second request works as well, and only for one section.
  daemon.signal(SIGUSR1);
  const std::string c = "105,123,11,14,9,2,0,1699952520,0,0,0,0,\"cy\",\"\"," + kTail;
  const std::string d = "105,123,11,14,9,3,0,1699952580,0,0,0,0,\"di\",\"\"," + kTail;
  box.append(
      "audit",
      "subsystem-start\nh 1699952520\nuser cy\n\nsubsystem-start\nh 1699952580\nuser di\n\n");
  ASSERT_TRUE(daemon.wait_file("cdf.000", header_record() + c + d));
  EXPECT_EQ(daemon.stop(), 0);
  EXPECT_EQ(box.files(), (std::map<std::string, std::string>{{"cdf.000", header_record() + c + d},
                                                             {"cdf.001", header_record() + b},
                                                             {"cdf.002", header_record() + a},
                                                             {"cdf.003", ""},
                                                             {"cdf.ERR", ""}}));
}

constexpr long kT = 1699952400;  // 2023-11-14 09:00:00 UTC

// A subsystem-start section of that day (UTC) and its record.
std::string section(const std::string& user, long time) {
  return "subsystem-start\nh " + std::to_string(time) + "\nuser " + user + "\n\n";
}
std::string record(const std::string& user, long time) {
  time_t t = time;
  struct tm u {};
  ::gmtime_r(&t, &u);
  return "105,123,11,14," + std::to_string(u.tm_hour) + "," + std::to_string(u.tm_min) + "," +
         std::to_string(u.tm_sec) + "," + std::to_string(time) + ",0,0,0,0,\"" + user + "\",\"\"," +
         kTail;
}

// The mail server's log rotation, while the daemon runs and while it is stopped: the old file is
// renamed away (and may still receive a late section, and end in an incomplete one or in a line
// without its line feed) and a new one
// created, or the file is copied and truncated in place. Every section reaches the output exactly
// once, apart from what the rotation itself loses (an incomplete section, and with copytruncate
// while stopped the file read again under the checkpoint).
TEST(DaemonFollow, AuditFileRotatedByRenameOrTruncation) {
  // Two sections before the rotation, so that the new file is shorter than what was read.
  const std::string before = section("ann", kT) + section("bob", kT + 1);
  const std::string late = section("cy", kT + 2);  // into the old file after it was renamed
  const std::string cut = "subsystem-start\nh " + std::to_string(kT + 3) + "\nuser cut\n";
  const std::string fresh = section("di", kT + 4) + "bogus\n";
  const std::string first = record("ann", kT) + record("bob", kT + 1);
  const struct {
    const char* name;
    bool rename, running;
    std::string output, errors, trace;
  } cases[] = {
      // The old file ends in a line without its line feed: a line all the same.
      {"renamed while running", true, true, first + record("cy", kT + 2) + record("di", kT + 4),
       "Unknown audit file section: line 13\nbogus-tail\n"
       "Unknown audit file section: line 18\nbogus\n\n",
       "Audit file replaced: reading audit from its start\n"},
      {"truncated while running", false, true, first + record("di", kT + 4),
       "Unknown audit file section: line 13\nbogus\n\n",
       "Audit file truncated: reading audit from its start\n"},
      {"renamed while stopped", true, false, first + record("cy", kT + 2) + record("di", kT + 4),
       "Incomplete section dropped at line 13\nUnknown audit file section: line 20\nbogus\n\n",
       "Resuming at line 9 of the audit file\n"},
      // The copy holds the position's file: finished from the position, then the truncated file.
      {"truncated while stopped", false, false, first + record("di", kT + 4),
       "Unknown audit file section: line 13\nbogus\n\n", "Reading rotated audit file audit.1\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Sandbox box;
    box.write("audit", before);
    std::optional<Daemon> daemon(std::in_place, box, kDebugArgs);
    ASSERT_TRUE(daemon->wait_file("cdf.000", header_record() + first));
    ASSERT_TRUE(daemon->wait_err("waiting...\n"));
    if (!c.running) {
      EXPECT_EQ(daemon->stop(), 0);
    }
    if (c.rename) {
      fs::rename(box.file("audit"), box.file("audit.1"));
      box.append("audit.1", late + (c.running ? "bogus-tail" : cut));
    } else {
      box.write("audit.1", box.read("audit"));
      fs::resize_file(box.file("audit"), 0);
    }
    box.append("audit", fresh);
    if (!c.running) daemon.emplace(box, kDebugArgs);
    ASSERT_TRUE(daemon->wait_file("cdf.000", header_record() + c.output)) << box.read("cdf.000");
    ASSERT_TRUE(daemon->wait_err("Unknown audit file section"));
    EXPECT_EQ(daemon->stop(), 0);
    EXPECT_EQ(box.read("cdf.ERR"), c.errors);
    EXPECT_NE(daemon->err().find(c.trace), std::string::npos) << daemon->err();
    // A restart goes on in the new file where the run stopped.
    box.append("audit", section("eve", kT + 5));
    daemon.emplace(box, kDebugArgs);
    ASSERT_TRUE(daemon->wait_err("waiting...\n"));
    EXPECT_EQ(daemon->stop(), 0);
    EXPECT_EQ(box.read("cdf.000"), header_record() + c.output + record("eve", kT + 5));
    EXPECT_EQ(box.read("cdf.ERR"), c.errors);
  }
}

// Stopped before anything of the file now at the audit file's name was handled: the restart reads
// that file from its start, after what the old one (renamed away) still holds beyond the position.
TEST(DaemonFollow, StoppedBeforeTheNewAuditFileWasHandledRestartsAtItsStart) {
  const std::string old_file = section("ann", kT) + section("bob", kT + 1) + "bogus\n";
  std::string di = section("di", kT + 4);
  for (int i = 0; i < 12; ++i) di.insert(di.size() - 1, "user di\n");  // longer than the old file
  const std::string new_file = di + section("eve", kT + 5);
  const struct {
    const char* name;
    bool running;         // rotated while the daemon runs, else while it is stopped
    std::string at_stop;  // what the new file holds when the daemon stops
  } cases[] = {
      {"new file empty", true, ""},
      {"new file's first section incomplete", true, di.substr(0, di.size() - 1)},
      {"empty file renamed away and replaced while stopped", false, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Sandbox box;
    box.write("audit", c.running ? old_file : "");
    Daemon first(box, kDebugArgs);
    ASSERT_TRUE(first.wait_err("waiting...\n"));
    if (c.running) {
      fs::rename(box.file("audit"), box.file("audit.1"));
      box.write("audit", c.at_stop);
      // An empty new file does not end the old one, which may still be written to.
      if (!c.at_stop.empty()) {
        ASSERT_TRUE(first.wait_err("Audit file replaced"));
      }
      ASSERT_TRUE(first.wait_err("waiting...\n", count_of(first.err(), "waiting...\n") + 1));
    }
    EXPECT_EQ(first.stop(), 0);
    if (!c.running) {
      box.write("audit", old_file);
      fs::rename(box.file("audit"), box.file("audit.1"));
    }
    box.write("audit", new_file);
    Daemon second(box, kDebugArgs);
    ASSERT_TRUE(second.wait_err("waiting...\n"));
    EXPECT_EQ(second.stop(), 0);
    EXPECT_EQ(box.read("cdf.000"), header_record() + record("ann", kT) + record("bob", kT + 1) +
                                       record("di", kT + 4) + record("eve", kT + 5));
    EXPECT_EQ(box.read("cdf.ERR"), "Unknown audit file section: line 9\nbogus\n\n");
  }
}

}  // namespace
}  // namespace daemon_test
