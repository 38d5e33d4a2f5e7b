// A restart through the real binary after a kill inside a large write. (Kills and power cuts at
// every step of a run, a rotation among them: tests/app/faults_test.cc.)
#include "daemon_harness.h"

namespace daemon_test {
namespace {

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
      [&] {
        return reference.read("cdf.000").ends_with(subsystem_record(106, 1699952460, " ", 4));
      },
      60));
#ifndef EKADCDF_SANITIZED  // memory bounded: the recipients and their records take far more
  const std::string status = read_file("/proc/" + std::to_string(whole.pid()) + "/status");
  EXPECT_LT(std::stol(status.substr(status.find("VmHWM:") + 6)), 12 * 1024) << "KiB at peak";
#endif
  EXPECT_EQ(whole.stop(), 0);
  const auto expected = reference.files();

  Sandbox box;
  box.write("audit", audit);
  int cut = 0;
  auto current_size = [&] { return size_of(box.file("cdf.000")); };
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

}  // namespace
}  // namespace daemon_test
