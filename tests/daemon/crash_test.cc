// Crash consistency: a daemon killed with SIGKILL at random moments (while it converts, while it
// rotates the generations, while it starts up) and restarted again and again over an audit file
// that keeps growing must leave every generation and the error file byte for byte as one
// uninterrupted run leaves them, and no file of its own beside them.
#include <random>

#include "daemon_harness.h"

namespace daemon_test {
namespace {

// A few thousand sections of the common kinds over about five weeks (UTC), so that the
// generations rotate every few dozen sections, with lines the daemon reports in the error file,
// blank lines between sections and times that go back a little.
std::string generate_audit() {
  std::mt19937 rng(15);
  auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  const char* const kCategories[] = {"to", "cc", "bcc"};
  std::string audit;
  long t = 1699920000 + 3600;  // 2023-11-14 01:00:00
  for (int i = 0; i < 2500; ++i) {
    t += 1 + pick(3000);
    const std::string n = std::to_string(i);
    const std::string when = std::to_string(pick(30) == 0 ? t - 7200 : t);
    if (pick(5) == 0) audit += "\n";
    if (pick(40) == 0) audit += "unknown-" + n + "\n";
    const std::string junk = pick(25) == 0 ? "junk line " + n + "\n" : "";
    int kind = pick(20);
    if (kind < 7) {
      audit += "routing\nh " + when + "\ntype 1\npriority " + std::to_string(pick(3)) +
               "\noriginator u" + n + "/sales\nua-message-id M" + n + "\n" + junk;
      for (int j = 0, recipients = 1 + pick(4); j < recipients; ++j) {
        audit += std::string("recipient-") + kCategories[pick(3)] + " r" + n + "x" +
                 std::to_string(j) + "/ou\nack-req " + std::to_string(pick(2)) + "\nqueue " +
                 (pick(2) ? "LOCAL" : "EKX400-out") + "\n";
      }
      audit += "subject s " + n + "\nmessage-size " + std::to_string(pick(99999)) + "\n\n";
    } else if (kind < 12) {
      audit += "delivery\nh " + when + "\noriginator o" + n + "\nua-message-id D" + n + "\n";
      for (int j = 0, recipients = 1 + pick(3); j < recipients; ++j) {
        audit += "recipient-to a" + n + "x" + std::to_string(j) + "\n";
        if (pick(3) == 0) audit += "non-delivery-reason " + std::to_string(1 + pick(9)) + "\n";
      }
      audit += junk + "delivered-count 1\n\n";
    } else if (kind < 15) {
      audit += "user-signon\nh " + when + "\nuser " + n +
               " Main Mail jsmith smithj\nsignon-status 1\n" + junk + "client-type 4\n\n";
    } else if (kind < 18) {
      audit += "ekscan\nh " + when + "\n";
      for (int j = 0, users = 1 + pick(3); j < users; ++j) {
        audit += "user u" + n + "n" + std::to_string(j) + "\nuser-messages " +
                 std::to_string(pick(50)) + "\ntray 1 inbox " + std::to_string(pick(9)) + " 400\n";
      }
      audit += junk + "\n";
    } else {
      audit += "subsystem-start\nh " + when + "\nsubsystem 3\n" + junk + "user op" + n + "\n\n";
    }
  }
  return audit;
}

// Whether the daemon's standard error ends with its idle line: it has converted all there was.
bool idle(const Daemon& daemon) {
  return daemon.err().ends_with("waiting...\n");
}

// Whether a rotation is under way: its side files exist only while it runs.
bool rotating(const Sandbox& box) {
  return !box.files(".cdf-rotation").empty();
}

class DaemonCrash : public ::testing::TestWithParam<const char*> {};

TEST_P(DaemonCrash, KillsAtRandomLeaveTheFilesOfOneUninterruptedRun) {
  const std::vector<std::string> args = {"-a", "audit", "-b", "cdf", "-d", "-g", GetParam()};
  const std::string audit = generate_audit();

  Sandbox reference_box;
  reference_box.write("audit", audit);
  Daemon reference(reference_box, args);
  ASSERT_TRUE(eventually([&] { return idle(reference); }, 60));
  EXPECT_EQ(reference.stop(), 0);
  const auto expected = reference_box.files("");  // the audit file too, any leftover shows
  ASSERT_GT(expected.at("cdf.ERR").size(), 0u);
  for (const auto& [name, text] : expected) EXPECT_NE(name[0], '.') << name << " left behind";
  const uintmax_t full_trace = reference.err().size();

  // The audit file grows between the runs, by pieces cut anywhere (inside sections and lines
  // too); each run is killed once its trace has reached a random size (the trace is written in
  // blocks as the work goes on), or a few milliseconds after it started, or once it is idle.
  Sandbox box;
  std::mt19937 rng(20231114);
  size_t written = audit.size() / 5;
  box.write("audit", audit.substr(0, written));
  constexpr int kKills = 40;
  int in_rotation = 0, while_converting = 0;
  for (int kill = 0; kill < kKills; ++kill) {
    if (written < audit.size() && rng() % 3 == 0) {
      size_t more = std::min(audit.size() - written, rng() % (audit.size() / 8));
      box.append("audit", audit.substr(written, more));
      written += more;
    }
    Daemon daemon(box, args);
    const fs::path trace = box.root() / ("stderr." + std::to_string(Daemon::runs()));
    const unsigned mode = rng() % 4;
    if (mode == 0) {
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 5000));
    } else if (mode == 1) {
      eventually([&] { return rotating(box) || idle(daemon); }, 30, 0.0001);
    } else {
      const uintmax_t target = rng() % (full_trace / 6 + 1);
      eventually([&] { return size_of(trace) >= target || idle(daemon); }, 30, 0.0001);
    }
    daemon.signal(SIGKILL);
    ASSERT_EQ(daemon.wait_exit(), 128 + SIGKILL);
    if (!idle(daemon)) ++while_converting;
    if (rotating(box)) ++in_rotation;
  }
  RecordProperty("kills_while_converting", while_converting);
  RecordProperty("kills_inside_rotations", in_rotation);
  EXPECT_GE(while_converting, kKills / 4);
  EXPECT_GE(in_rotation, 1);

  box.append("audit", audit.substr(written));
  Daemon last(box, args);
  ASSERT_TRUE(eventually([&] { return idle(last); }, 60));
  EXPECT_EQ(last.stop(), 0);
  EXPECT_EQ(last.out(), "");
  // File by file, so that a difference is shown as a diff of its lines.
  auto got = box.files("");
  EXPECT_EQ(got.size(), expected.size()) << "a file of its own left beside them";
  for (const auto& [name, text] : expected) EXPECT_EQ(got[name], text) << name;
}

INSTANTIATE_TEST_SUITE_P(Generations, DaemonCrash, ::testing::Values("2", "100"));

}  // namespace
}  // namespace daemon_test
