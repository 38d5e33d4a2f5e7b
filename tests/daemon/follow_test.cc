// The daemon following its audit file while it grows and is rotated, and its signals: SIGTERM
// inside a section, SIGUSR1. (Lines and sections split across appends: the line reader's and the
// converters' tests.)
#include "daemon_harness.h"

namespace daemon_test {
namespace {

const std::vector<std::string> kDebugArgs = {"-a", "audit", "-b", "cdf", "-d"};
constexpr long kT = 1699952400;  // 2023-11-14 09:00:00 UTC
const char kEnd[] = "<- adcdf_process_file\n<- main: ADCDF Daemon Outer Block\n";

// A subsystem-start section and its record.
std::string section(const std::string& user, long time) {
  return "subsystem-start\nh " + std::to_string(time) + "\nuser " + user + "\n\n";
}
std::string record(const std::string& user, long time) {
  return subsystem_record(105, time, user);
}

// SIGTERM inside a section whose header changed the day: the section is abandoned and the files
// are exactly as they were before it; a restart converts it once, into the new day's generation.
// SIGUSR1 while the daemon waits changes nothing; the next section opens a new generation, although
// its day is the same; the handler stays installed, and a request is for one section only.
TEST(DaemonFollow, SigtermInsideASectionRotatesNothingAndSigusr1RotatesAtTheNextSection) {
  Sandbox box;
  box.write("audit", section("ann", kT));
  const std::string ann = record("ann", kT);
  std::optional<Daemon> daemon(std::in_place, box, kDebugArgs);
  ASSERT_TRUE(daemon->wait_file("cdf.000", header_record() + ann));
  ASSERT_TRUE(daemon->wait_err("waiting...\n"));
  auto before = box.files();
  box.append("audit", "subsystem-stop\nh 1700006400\nbogus line\n");
  ASSERT_TRUE(daemon->wait_err("ldate = 1700006400\n"));
  EXPECT_EQ(daemon->stop(), 0);
  EXPECT_EQ(box.files(), before);
  const std::string err = daemon->err();
  EXPECT_NE(err.find(counted("Subsystem-start", 1)), std::string::npos);
  EXPECT_TRUE(err.ends_with(kEnd));
  // The rotation was decided, and traced, when the header was read.
  EXPECT_EQ(count_of(err, "Looking for: cdf.000\n"), 2u);
  box.append("audit", "\n");
  daemon.emplace(box, kDebugArgs);
  const std::string a = subsystem_record(106, 1700006400, " ");
  ASSERT_TRUE(daemon->wait_file("cdf.000", header_record() + a));
  ASSERT_TRUE(daemon->wait_err("waiting...\n"));
  before = box.files();
  daemon->signal(SIGUSR1);
  ASSERT_TRUE(daemon->wait_err("waiting...\n", count_of(daemon->err(), "waiting...\n") + 1));
  EXPECT_EQ(box.files(), before);
  const std::string b = subsystem_record(106, 1700006460, " ");
  box.append("audit", "subsystem-stop\nh 1700006460\n\n");
  ASSERT_TRUE(daemon->wait_file("cdf.000", header_record() + b));
  daemon->signal(SIGUSR1);
  const std::string c = record("cy", 1700006520), d = record("di", 1700006580);
  box.append("audit", section("cy", 1700006520) + section("di", 1700006580));
  ASSERT_TRUE(daemon->wait_file("cdf.000", header_record() + c + d));
  daemon->signal(SIGHUP);  // stops it as SIGTERM does
  EXPECT_EQ(daemon->wait_exit(), 0);
  EXPECT_EQ(box.files(), (std::map<std::string, std::string>{
                             {"cdf.000", header_record() + c + d},
                             {"cdf.001", header_record() + b},
                             {"cdf.002", header_record() + a},
                             {"cdf.003", header_record() + ann},
                             {"cdf.004", ""},
                             {"cdf.ERR", "Skipped line: 7\nLine = bogus line\n\n"}}));
}

// How the mail server's logs are rotated, by logrotate or by hand, while the daemon runs or
// while it is stopped. Every section any audit file still holds reaches the output once, in the
// order the server wrote it; what no file holds any more, and a name that cannot be read, get
// one error-file entry each. `look` waits until the daemon has looked at the files again.
struct Rotation {
  const char* name;
  bool running;
  std::function<void(Sandbox&, const std::function<void()>& look)> rotate;
  std::vector<std::string> users;  // whose sections, after ann's and bob's, reach the output
  std::string errors, trace;
};

// Two sections before the rotation, so that the new file is shorter than what was read.
const std::string kBefore = section("ann", kT) + section("bob", kT + 1);
const std::string kLate = section("cy", kT + 2);
const std::string kFresh = section("di", kT + 4) + "bogus\n";
const std::string kUnknownAt13 = "Unknown audit file section: line 13\nbogus\n\n";
const std::string kUnknownAt17 = "Unknown audit file section: line 17\nbogus\n\n";

void rename_away(Sandbox& box, const std::string& to = "audit.1") {
  fs::rename(box.file("audit"), box.file(to));
}
// A late section, then logrotate's copytruncate.
void copy_and_truncate(Sandbox& box) {
  box.append("audit", kLate);
  box.write("audit.1", box.read("audit"));
  fs::resize_file(box.file("audit"), 0);
}
// Two rename rotations, the middle file holding the late section.
void rename_twice(Sandbox& box) {
  rename_away(box);
  box.write("audit", kLate);
  fs::rename(box.file("audit.1"), box.file("audit.2"));
  rename_away(box);
}
void not_readable_until_replaced(Sandbox& box, const std::function<void()>& look,
                                 const std::function<void(const std::string&)> plant) {
  rename_away(box);
  plant(box.file("audit"));
  look();
  look();
  fs::remove(box.file("audit"));
}

const Rotation kRotations[] = {
    // The old file ends in a line without its line feed: a line all the same.
    {"RenamedWithALateSection",
     true,
     [](Sandbox& box, auto&) {
       rename_away(box);
       box.append("audit.1", kLate + "bogus-tail");
     },
     {"cy", "di"},
     "Unknown audit file section: line 13\nbogus-tail\nUnknown audit file section: line 18\n"
     "bogus\n\n",
     "Audit file replaced: reading audit from its start\n"},
    // The new file stays empty for a while: the old one may still be written to.
    {"RenamedNewFileEmptyWhileTheOldOneIsWritten",
     true,
     [](Sandbox& box, auto& look) {
       rename_away(box);
       box.write("audit", "");
       look();
       box.append("audit.1", kLate);
       look();
     },
     {"cy", "di"},
     kUnknownAt17,
     "Audit file replaced: reading audit from its start\n"},
    {"RenamedTwiceBetweenTwoLooks",
     true,
     [](Sandbox& box, auto&) { rename_twice(box); },
     {"cy", "di"},
     kUnknownAt17,
     "Reading rotated audit file audit.1\n"},
    {"RenamedTwiceWhileStopped",
     false,
     [](Sandbox& box, auto&) { rename_twice(box); },
     {"cy", "di"},
     kUnknownAt17,
     "Reading rotated audit file audit.2\n"},
    // A late section, then one cut short by the rotation, then logrotate's compress.
    {"RenamedAndCompressedWhileStopped",
     false,
     [](Sandbox& box, auto&) {
       rename_away(box);
       box.append("audit.1",
                  kLate + "subsystem-start\nh " + std::to_string(kT + 3) + "\nuser cut\n");
       run_shell("gzip " + box.file("audit.1"));
     },
     {"cy", "di"},
     "Incomplete section dropped at line 13\nUnknown audit file section: line 20\nbogus\n\n",
     "Reading rotated audit file audit.1.gz\n"},
    // copytruncate: the copy holds what was written while the daemon slept.
    {"CopiedAndTruncatedAfterALateSection",
     true,
     [](Sandbox& box, auto&) { copy_and_truncate(box); },
     {"cy", "di"},
     kUnknownAt17,
     "Reading rotated audit file audit.1\n"},
    {"CopiedAndTruncatedWhileStopped",
     false,
     [](Sandbox& box, auto&) {
       copy_and_truncate(box);
       run_shell("gzip " + box.file("audit.1"));
     },
     {"cy", "di"},
     kUnknownAt17,
     "Reading rotated audit file audit.1.gz\n"},
    // No copy, and the file written again past the old offset before the daemon looked: only
    // its beginning tells.
    {"TruncatedAndRefilledWithoutACopy",
     true,
     [](Sandbox& box, auto&) { box.write("audit", std::string(100, '\n')); },
     {"di"},
     "Audit data lost after line 8 of audit\nUnknown audit file section: line 113\nbogus\n\n",
     "Audit file truncated: reading audit from its start\n"},
    // The file rotated after the one being read was compressed with something the daemon
    // cannot read.
    {"RotatedFileThatCannotBeRead",
     false,
     [](Sandbox& box, auto&) {
       rename_twice(box);
       fs::remove(box.file("audit.1"));
       box.write("audit.1.gz", "not a gzip stream");
     },
     {"di"},
     "Audit data lost after line 8 of audit\n" + kUnknownAt13,
     "Audit data lost after line 8 of audit\n"},
    {"FifoAtTheName",
     true,
     [](Sandbox& box, auto& look) {
       not_readable_until_replaced(
           box, look, [](const std::string& at) { ASSERT_EQ(::mkfifo(at.c_str(), 0600), 0); });
     },
     {"di"},
     "Audit file audit cannot be read: not a regular file\n" + kUnknownAt13,
     "Audit file audit cannot be read: not a regular file\n"},
    {"DirectoryAtTheName",
     true,
     [](Sandbox& box, auto& look) {
       not_readable_until_replaced(box, look,
                                   [](const std::string& at) { fs::create_directory(at); });
     },
     {"di"},
     "Audit file audit cannot be read: not a regular file\n" + kUnknownAt13,
     "Audit file audit cannot be read: not a regular file\n"},
};

void PrintTo(const Rotation& rotation, std::ostream* out) {
  *out << rotation.name;
}

class DaemonRotation : public ::testing::TestWithParam<Rotation> {};

TEST_P(DaemonRotation, EverySectionOnceAndEveryGapReported) {
  const Rotation& c = GetParam();
  Sandbox box;
  box.write("audit", kBefore);
  std::optional<Daemon> daemon(std::in_place, box, kDebugArgs);
  std::string expected = record("ann", kT) + record("bob", kT + 1);
  ASSERT_TRUE(daemon->wait_file("cdf.000", header_record() + expected));
  ASSERT_TRUE(daemon->wait_err("waiting...\n"));
  if (!c.running) {
    EXPECT_EQ(daemon->stop(), 0);
  }
  // Two more waits: the daemon has looked at the files at least once since.
  auto look = [&] {
    const size_t waits = count_of(daemon->err(), "waiting...\n");
    EXPECT_TRUE(!c.running || daemon->wait_err("waiting...\n", waits + 2));
  };
  c.rotate(box, look);
  box.append("audit", kFresh);
  if (!c.running) daemon.emplace(box, kDebugArgs);
  const long times[] = {kT + 2, kT + 4};
  for (const std::string& user : c.users) expected += record(user, times[user == "di"]);
  ASSERT_TRUE(daemon->wait_file("cdf.000", header_record() + expected)) << box.read("cdf.000");
  ASSERT_TRUE(daemon->wait_err("Unknown audit file section"));
  EXPECT_EQ(daemon->stop(), 0);
  EXPECT_EQ(box.read("cdf.ERR"), c.errors);
  EXPECT_NE(daemon->err().find(c.trace), std::string::npos) << daemon->err();
  // A restart goes on in the new file where the run stopped.
  box.append("audit", section("eve", kT + 5));
  daemon.emplace(box, kDebugArgs);
  ASSERT_TRUE(daemon->wait_err("waiting...\n"));
  EXPECT_EQ(daemon->stop(), 0);
  EXPECT_EQ(box.read("cdf.000"), header_record() + expected + record("eve", kT + 5));
  EXPECT_EQ(box.read("cdf.ERR"), c.errors);
}

INSTANTIATE_TEST_SUITE_P(ByHand, DaemonRotation, ::testing::ValuesIn(kRotations),
                         [](const auto& info) { return std::string(info.param.name); });

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
