// The daemon as a long-running service in a hostile environment: closed standard descriptors, a
// trace reader that went away, stop signals, links and FIFOs planted at its file names, a base
// name too long to rotate, the modes of what it creates; and what it tells the service manager.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "daemon_harness.h"

namespace daemon_test {
namespace {

const std::string kSection = "subsystem-stop\nh 1699952400\nsubsystem 4\n\n";
const std::string kRecord = subsystem_record(106, 1699952400, " ", 4);
const std::string kNextDay = "subsystem-stop\nh 1700038800\nsubsystem 5\n\n";

TEST(DaemonService, ClosedDescriptorsAndADeadTracePipeChangeNoRecord) {
  {
    Sandbox box;
    box.write("audit", kSection);
    Daemon daemon(box, {"-a", "audit", "-b", "cdf", "-d", "--once"}, {.closed_standard = true});
    EXPECT_EQ(daemon.wait_exit(), 0);
    EXPECT_EQ(box.read("cdf.000"), header_record() + kRecord);
  }
  Sandbox box;
  box.write("audit", kSection);
  int pipe_fds[2];
  ASSERT_EQ(::pipe(pipe_fds), 0);
  ::close(pipe_fds[0]);  // the reader is gone before the daemon writes a line
  Daemon daemon(box, {"-a", "audit", "-b", "cdf", "-d"}, {.stderr_fd = pipe_fds[1]});
  ::close(pipe_fds[1]);
  ASSERT_TRUE(daemon.wait_file("cdf.000", header_record() + kRecord));
  box.append("audit", kSection);
  ASSERT_TRUE(daemon.wait_file("cdf.000", header_record() + kRecord + kRecord));
  EXPECT_EQ(daemon.stop(), 0);
}

// A symbolic link at any name the daemon writes, renames or removes, a FIFO at any of its names
// or a hard link where it writes is refused at once with an error naming it, and nothing is
// written through it (no FIFO is waited for); at the process-list entry it is only passed over.
TEST(DaemonService, LinksAndFifosPlantedAtItsNamesAreRefused) {
  enum Planted { kSymlink, kFifo, kHardLink };
  const struct {
    const char* name;
    Planted planted;
    bool fatal;
    bool while_running;  // planted after start, before a rotation moves that name
  } cases[] = {
      {"cdf.000", kSymlink, true, false},
      {"cdf.001", kSymlink, true, false},
      {"cdf.002", kSymlink, true, false},
      {"cdf.ERR", kSymlink, true, false},
      {"cdf.POS", kSymlink, true, false},
      {".cdf-rotation.new", kSymlink, true, false},
      {"../ekadcdf.pid", kSymlink, false, false},
      {"cdf.001", kSymlink, true, true},
      {"cdf.000", kFifo, true, false},
      {"cdf.001", kFifo, true, false},
      {"cdf.ERR", kFifo, true, false},
      {"cdf.POS", kFifo, true, false},
      {".cdf-rotation.journal", kFifo, true, false},
      {"../ekadcdf.pid", kFifo, false, false},
      {"cdf.000", kHardLink, true, false},
      {"cdf.ERR", kHardLink, true, false},
      {"cdf.POS", kHardLink, true, false},
  };
  const char* const kRefusals[] = {"1 10 symbolic link refused: %s is a symbolic link",
                                   "1 12 special file refused: %s is not a regular file",
                                   "1 13 linked file refused: %s has 2 hard links"};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.name) + " " + std::to_string(c.planted) +
                 (c.while_running ? " while running" : ""));
    Sandbox box;
    box.write("audit", kSection);
    const fs::path victim = box.root() / "victim";
    write_file(victim, "precious\n");
    auto plant = [&] {
      if (c.planted == kSymlink) fs::create_symlink(victim, box.file(c.name));
      if (c.planted == kFifo) ::mkfifo(box.file(c.name).c_str(), 0600);
      if (c.planted == kHardLink) fs::create_hard_link(victim, box.file(c.name));
    };
    // With a current generation in place start-up opens no older one: only the check of every
    // name at start sees a link there.
    if (c.fatal && !c.while_running && std::string(c.name) != "cdf.000") {
      box.write("cdf.000", header_record() + kRecord);
    }
    if (!c.while_running) plant();
    Daemon daemon(box, {"-a", "audit", "-b", "cdf", "-g", "3"});
    if (c.while_running) {
      ASSERT_TRUE(daemon.wait_file("cdf.000", header_record() + kRecord));
      fs::remove(box.file("cdf.001"));
      plant();
      box.append("audit", kNextDay);
    }
    if (c.fatal) {
      EXPECT_EQ(daemon.wait_exit(), 1);
      char refusal[256];
      std::snprintf(refusal, sizeof refusal, kRefusals[c.planted], c.name);
      EXPECT_EQ(daemon.out(), "adcdf error: " + std::string(refusal) + "\n");
    } else {
      ASSERT_TRUE(daemon.wait_file("cdf.000", header_record() + kRecord));
      EXPECT_EQ(daemon.stop(), 0);
    }
    const auto status = fs::symlink_status(box.file(c.name));
    EXPECT_EQ(status.type(), c.planted == kSymlink ? fs::file_type::symlink
                             : c.planted == kFifo  ? fs::file_type::fifo
                                                   : fs::file_type::regular);
    EXPECT_EQ(read_file(victim), "precious\n");
  }
}

// Its rotation journal's name would be too long: refused before the lock is taken.
TEST(DaemonService, OverlongBaseNameStopsItBeforeAnyChange) {
  Sandbox box;
  box.write("audit", kSection);
  const std::string base(240, 'b');
  Daemon daemon(box, {"-a", "audit", "-b", base});
  EXPECT_EQ(daemon.wait_exit(), 1);
  EXPECT_EQ(daemon.out(), "adcdf error: 1 1 file open failed: cannot create ." + base +
                              "-rotation.journal: File name too long\n");
  EXPECT_EQ(box.files("").size(), 1u);
}

TEST(DaemonService, CreatedFilesAreNotReadableByOthers) {
  Sandbox box;
  box.write("audit", kSection + kNextDay);
  Daemon daemon(box, {"-a", "audit", "-b", "cdf"}, {.umask = 0});
  ASSERT_TRUE(daemon.wait_file("cdf.001", header_record() + kRecord));
  EXPECT_EQ(daemon.stop(), 0);
  for (const char* name : {"cdf.000", "cdf.001", "cdf.002", "cdf.ERR", "cdf.POS"}) {
    EXPECT_EQ(fs::status(box.file(name)).permissions(),
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read)
        << name;
  }
}

// Under systemd with Type=notify: READY=1 once the run has started, a first status at once,
// watchdog pings when the unit asks for them, and STOPPING=1 at the stop, which SIGINT asks for
// as SIGTERM does (SIGHUP too: DaemonFollow): statistics, status 0, its process-list entry gone.
// Meanwhile a second daemon on the same base name refuses at once, names the running one and
// touches no file.
TEST(DaemonService, TellsTheServiceManagerWhatItDoesAndRefusesASecondDaemonOnItsBaseName) {
  Sandbox box;
  box.write("audit", kSection);
  const std::string address = (box.root() / "notify").string();
  int socket_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  std::snprintf(name.sun_path, sizeof name.sun_path, "%s", address.c_str());
  ASSERT_EQ(::bind(socket_fd, reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
  Daemon daemon(box, {"-a", "audit", "-b", "cdf", "-d"},
                {.more = {"NOTIFY_SOCKET=" + address, "WATCHDOG_USEC=1000000"}});
  ASSERT_TRUE(daemon.wait_err("waiting...\n", 2));
  const auto files = box.files();
  const std::string pid = std::to_string(daemon.pid());
  Daemon second(box, {"-a", "audit", "-b", "cdf", "-d"});
  EXPECT_EQ(second.wait_exit(5), 1);
  EXPECT_EQ(second.out(), "adcdf error: 1 9 file in use: cdf.POS is held by process " + pid +
                              ", an ekadcdf already running on this base name\n");
  EXPECT_EQ(box.files(), files);
  EXPECT_TRUE(box.read("cdf.POS").starts_with("pid " + pid + " "));
  EXPECT_EQ(read_file(box.root() / "ekadcdf.pid"), pid + "\n");
  daemon.signal(SIGINT);
  EXPECT_EQ(daemon.wait_exit(), 0);
  EXPECT_NE(daemon.err().find(counted("Subsystem-stop", 1)), std::string::npos);
  EXPECT_FALSE(fs::exists(box.root() / "ekadcdf.pid"));
  std::vector<std::string> messages;
  char buffer[512];
  for (ssize_t n; (n = ::recv(socket_fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;) {
    messages.emplace_back(buffer, static_cast<size_t>(n));
  }
  ::close(socket_fd);
  ASSERT_GE(messages.size(), 4u);
  EXPECT_EQ(messages[0], "READY=1");
  EXPECT_EQ(messages[1], "STATUS=0 sections converted, at line 1 of the audit file");
  EXPECT_NE(std::find(messages.begin(), messages.end(), "WATCHDOG=1"), messages.end());
  EXPECT_EQ(messages.back(), "STOPPING=1");
}

}  // namespace
}  // namespace daemon_test
