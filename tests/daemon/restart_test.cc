// Restarts through the real binary: after a kill inside a large write, and a second daemon on
// the same base name. (Kills and power cuts at every step of a run, a rotation among them:
// tests/app/faults_test.cc.)
#include "daemon_harness.h"

namespace daemon_test {
namespace {

const std::string kTail = "0,0,0,\"\",0,0,0,\"\",\"\"\n";

// Killed while it writes the records of a section with 300,000 recipients (some 30 MB, more
// than it keeps in memory: written in pieces after its rotation and its skipped line): the
// restart cuts the part written off and converts the section again, so the section is in the
// files once and whole.
TEST(DaemonRestart, KilledInsideALargeWriteLeavesTheSectionWholeOnce) {
  std::string audit = "routing\nh 1699952400\noriginator o/x\nstray\n";
  for (int i = 0; i < 300000; ++i) {
    audit += "recipient-to r" + std::to_string(i) + "\nack-req 1\nqueue LOCAL\n";
  }
  audit += "subject big\n\nsubsystem-stop\nh 1699952460\nsubsystem 4\n\n";
  Sandbox reference;
  reference.write("audit", audit);
  Daemon whole(reference, {"-a", "audit", "-b", "cdf"});
  ASSERT_TRUE(eventually(
      [&] { return reference.read("cdf.000").ends_with(",4,0,0,0,\" \",\"\"," + kTail); }, 60));
#ifndef EKADCDF_SANITIZED  // memory bounded: the recipients and their records take far more
  const std::string status = read_file("/proc/" + std::to_string(whole.pid()) + "/status");
  EXPECT_LT(std::stol(status.substr(status.find("VmHWM:") + 6)), 12 * 1024) << "KiB at peak";
#endif
  EXPECT_EQ(whole.stop(), 0);
  const auto expected = reference.files();

  Sandbox box;
  box.write("audit", audit);
  int cut = 0;
  auto current_size = [&] {
    std::error_code error;
    uintmax_t size = fs::file_size(box.file("cdf.000"), error);
    return error ? 0 : size;
  };
  for (int trial = 0; trial < 3; ++trial) {
    Daemon daemon(box, {"-a", "audit", "-b", "cdf"});
    // Kill it as soon as the file grows past its header record, once the restart has cut off
    // what the last trial left.
    eventually([&] { return current_size() < 200; }, 60, 0.0001);
    eventually([&] { return current_size() > 200; }, 60, 0.0001);
    daemon.signal(SIGKILL);
    EXPECT_EQ(daemon.wait_exit(), 128 + SIGKILL);
    if (current_size() < expected.at("cdf.000").size()) ++cut;
  }
  RecordProperty("kills_inside_the_write", cut);
  EXPECT_GE(cut, 1);
  Daemon last(box, {"-a", "audit", "-b", "cdf"});
  ASSERT_TRUE(eventually([&] { return box.files() == expected; }, 60));
  EXPECT_EQ(last.stop(), 0);
  EXPECT_EQ(box.files(), expected);
}

// A second daemon on the same base name refuses at once, names the running one and touches no
// file; the first goes on.
TEST(DaemonRestart, SecondDaemonOnTheSameBaseNameIsRefused) {
  Sandbox box;
  box.write("audit", "subsystem-stop\nh 1699952400\nsubsystem 4\n\n");
  Daemon first(box, {"-a", "audit", "-b", "cdf"});
  ASSERT_TRUE(first.wait_file(
      "cdf.000", header_record() + "106,123,11,14,9,0,0,1699952400,4,0,0,0,\" \",\"\"," + kTail));
  const auto files = box.files();
  Daemon second(box, {"-a", "audit", "-b", "cdf", "-d"});
  EXPECT_EQ(second.wait_exit(5), 1);
  EXPECT_EQ(second.out(), "adcdf error: 1 9 file in use: cdf.POS is held by process " +
                              std::to_string(first.pid()) +
                              ", an ekadcdf already running on this base name\n");
  EXPECT_EQ(box.files(), files);
  // The position file still names the first daemon as its holder.
  EXPECT_TRUE(box.read("cdf.POS").starts_with("pid " + std::to_string(first.pid()) + " "));
  EXPECT_EQ(read_file(box.root() / "ekadcdf.pid"), std::to_string(first.pid()) + "\n");
  EXPECT_EQ(first.stop(), 0);
}

}  // namespace
}  // namespace daemon_test
