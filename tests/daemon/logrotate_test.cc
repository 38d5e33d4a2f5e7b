// The daemon beside a mail server whose audit file Debian's logrotate rotates, in each of its
// common modes, faster than the daemon's 2-second look, while the server appends a section every
// few milliseconds. The records must equal those of one uninterrupted run over every byte the
// audit files hold at the end (rotated files oldest first, decompressed, then the current file).
#include <atomic>

#include "daemon_harness.h"

namespace daemon_test {
namespace {

constexpr long kT = 1699952400;  // 2023-11-14 09:00:00 UTC

struct Mode {
  const char* name;
  std::string settings;  // logrotate's, for the audit file
  bool copies;           // copytruncate: the server keeps its descriptor
  double every;          // seconds between rotations
};

void PrintTo(const Mode& mode, std::ostream* out) {
  *out << mode.name;
}

const Mode kModes[] = {
    {"Create", "create\n", false, 0.7},
    {"CreateCompress", "create\ncompress\n", false, 0.7},
    {"CreateCompressDelaycompress", "create\ncompress\ndelaycompress\n", false, 0.7},
    // Dated names are unique to the second: one rotation a second at most.
    {"DateextCompressDelaycompress",
     "create\ndateext\ndateformat -%Y%m%d-%s\ncompress\ndelaycompress\n", false, 1.1},
    {"Copytruncate", "copytruncate\n", true, 0.7},
    {"CopytruncateCompressDelaycompress", "copytruncate\ncompress\ndelaycompress\n", true, 0.7},
};

// The mail server: a section every 4 ms, an unknown line now and then. After a rename it writes
// to the renamed file until logrotate's postrotate tells it to reopen its log. logrotate copies
// and truncates while the server holds its writes (so that no section falls between the copy
// and the truncation, where no reader could find it).
class MailServer {
 public:
  explicit MailServer(const Sandbox& box) : box_(box), thread_([this] { run(); }) {}
  ~MailServer() { stop(); }
  void stop() {
    done_ = true;
    if (thread_.joinable()) thread_.join();
  }

 private:
  void run() {
    int fd = open_log();
    for (int i = 0; !done_; ++i) {
      if (box_.exists("rotating")) {
        write_file(box_.file("paused"), "");
        while (box_.exists("rotating") && !done_)
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      if (box_.exists("reopen")) {
        ::close(fd);
        fd = open_log();
        fs::remove(box_.file("reopen"));
      }
      std::string text = "subsystem-start\nh " + std::to_string(kT + i) + "\nuser u" +
                         std::to_string(i) + "\n\n" + (i % 25 == 7 ? "bogus\n" : "");
      if (::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(4));
    }
    ::close(fd);
  }
  int open_log() const {
    return ::open(box_.file("audit").c_str(), O_WRONLY | O_APPEND | O_CREAT, 0640);
  }

  const Sandbox& box_;
  std::atomic<bool> done_ = false;
  std::thread thread_;
};

std::string decompressed(const fs::path& file) {
  if (file.extension() != ".gz") return read_file(file);
  std::string text;
  FILE* pipe = ::popen(("gzip -dc '" + file.string() + "'").c_str(), "r");
  char chunk[65536];
  for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;) text.append(chunk, n);
  ::pclose(pipe);
  return text;
}

// What the audit files hold, in the order the server wrote them (by their first event time).
std::string every_audit_byte(const Sandbox& box) {
  std::map<long, std::string> by_time;
  for (const auto& entry : fs::directory_iterator(box.path())) {
    const std::string name = entry.path().filename().string();
    if (name != "audit" && !name.starts_with("audit.") && !name.starts_with("audit-")) continue;
    std::string text = decompressed(entry.path());
    size_t at = text.find("\nh ");
    if (at != std::string::npos) by_time[std::stol(text.substr(at + 3))] = text;
  }
  std::string all;
  for (const auto& [time, text] : by_time) all += text;
  return all;
}

class DaemonLogrotate : public ::testing::TestWithParam<Mode> {};

TEST_P(DaemonLogrotate, EveryRecordTheAuditFilesHoldOnce) {
  const Mode& mode = GetParam();
  Sandbox box;
  const std::string dir = box.path().string();
  std::string scripts = "postrotate\n  touch " + dir + "/reopen\n  i=0; while [ -e " + dir +
                        "/reopen ] && [ $i -lt 500 ]; do sleep 0.01; i=$((i+1)); done\nendscript\n";
  if (mode.copies) {
    scripts = "prerotate\n  touch " + dir + "/rotating\n  i=0; while [ ! -e " + dir +
              "/paused ] && [ $i -lt 500 ]; do sleep 0.01; i=$((i+1)); done\nendscript\n"
              "postrotate\n  rm -f " +
              dir + "/rotating " + dir + "/paused\nendscript\n";
  }
  box.write("logrotate.conf", dir + "/audit {\nrotate 1000\n" + mode.settings + scripts + "}\n");
  box.write("audit", "");
  Daemon daemon(box, {"-a", "audit", "-b", "cdf"});
  ASSERT_TRUE(eventually([&] { return box.exists("cdf.000"); }));
  {
    MailServer server(box);
    // The daemon has read some of the file before it is first rotated: a file copied and
    // truncated before anything of it was read cannot be told from one that was empty.
    ASSERT_TRUE(
        eventually([&] { return box.read("cdf.000").find("\n105,") != std::string::npos; }));
    for (int rotation = 0; rotation < 7; ++rotation) {
      std::this_thread::sleep_for(std::chrono::duration<double>(mode.every));
      run_shell("logrotate -f -s " + box.file("state") + " " + box.file("logrotate.conf"));
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(mode.every));
  }
  Sandbox whole;
  whole.write("audit", every_audit_byte(box));
  Daemon reference(whole, {"-a", "audit", "-b", "cdf", "--once"});
  ASSERT_EQ(reference.wait_exit(), 0);
  ASSERT_GT(whole.read("cdf.000").size(), 20000u);
  EXPECT_TRUE(daemon.wait_file("cdf.000", whole.read("cdf.000"), 30));
  EXPECT_EQ(daemon.stop(), 0);
  for (const auto& [name, text] : whole.files()) EXPECT_EQ(box.read(name), text) << name;
}

INSTANTIATE_TEST_SUITE_P(Modes, DaemonLogrotate, ::testing::ValuesIn(kModes),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace daemon_test
