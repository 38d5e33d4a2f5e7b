// Runs the real ekadcdf binary as a daemon in a scratch directory: start it with a chosen
// command line and environment, append to its audit file while it runs, wait for conditions
// with a deadline, signal it and collect its exit status and output.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "temp_dir.h"

namespace daemon_test {

namespace fs = std::filesystem;
using adcdf::testing::append_file;
using adcdf::testing::count_of;
using adcdf::testing::read_file;
using adcdf::testing::size_of;
using adcdf::testing::write_file;

// Polls `condition` every `poll` seconds until it holds or `seconds` have passed.
inline bool eventually(const std::function<bool()>& condition, double seconds = 20,
                       double poll = 0.02) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return condition();
    std::this_thread::sleep_for(std::chrono::duration<double>(poll));
  }
  return true;
}

inline void run_shell(const std::string& command) {
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

// The type-999 record that starts a generation begun today, in the time zone `tz` (the
// daemon's), with this host's name.
inline std::string header_record(const std::string& tz = "UTC") {
  ::setenv("TZ", tz.c_str(), 1);  // the tests' own clock readings need no time zone of their own
  ::tzset();
  time_t now = ::time(nullptr);
  struct tm local {};
  ::localtime_r(&now, &local);
  char host[257] = {};
  ::gethostname(host, 256);
  return "999," + std::to_string(local.tm_year) + "," + std::to_string(local.tm_mon + 1) + "," +
         std::to_string(local.tm_mday) + ",0,0,0,0,\"" + host +
         "\",0,0,0,\"\",\"\",0,0,0,\"\",0,0,0,\"\",\"\"\n";
}

// The record of a subsystem-start (105) or subsystem-stop (106) section written at `time` (UTC)
// for `user` and `subsystem`.
inline std::string subsystem_record(int type, long time, const std::string& user,
                                    int subsystem = 0) {
  time_t t = time;
  struct tm u {};
  ::gmtime_r(&t, &u);
  return std::to_string(type) + ",123,11," + std::to_string(u.tm_mday) + "," +
         std::to_string(u.tm_hour) + "," + std::to_string(u.tm_min) + "," +
         std::to_string(u.tm_sec) + "," + std::to_string(time) + "," + std::to_string(subsystem) +
         ",0,0,0,\"" + user + "\",\"\",0,0,0,\"\",0,0,0,\"\",\"\"\n";
}

// A scratch directory: the daemon runs in work(), its standard streams and process-list entry
// are kept in root(), so work() holds only what the daemon itself creates there.
class Sandbox : public adcdf::testing::TempDir {
 public:
  Sandbox() : TempDir("w") {}
  const fs::path& work() const { return path(); }
};

struct Env {
  std::string tz = "UTC";
  std::optional<std::string> home = std::nullopt;
  std::vector<std::string> more = {};  // further NAME=value entries
  bool closed_standard = false;        // start with descriptors 0, 1 and 2 closed
  int stderr_fd = -1;                  // standard error on this descriptor, not a file
  mode_t umask = 022;
  std::string binary = EKADCDF_BINARY;  // the program to run
};

class Daemon {
 public:
  Daemon(const Sandbox& box, std::vector<std::string> args, Env env = {}) : box_(box) {
    ++runs_;
    out_ = box.root() / ("stdout." + std::to_string(runs_));
    err_ = box.root() / ("stderr." + std::to_string(runs_));
    std::vector<std::string> environment = {"TZ=" + env.tz,
                                            "RUNTIME_DIRECTORY=" + box.root().string()};
    if (env.home) environment.push_back("HOME=" + *env.home);
    environment.insert(environment.end(), env.more.begin(), env.more.end());
    args.insert(args.begin(), env.binary);
    pid_ = ::fork();
    if (pid_ == 0) {
      std::vector<char*> argv, envp;
      for (auto& a : args) argv.push_back(a.data());
      for (auto& e : environment) envp.push_back(e.data());
      argv.push_back(nullptr);
      envp.push_back(nullptr);
      int out = ::open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      int err = ::open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (out < 0 || err < 0 || ::chdir(box.work().c_str()) != 0) ::_exit(127);
      ::dup2(out, 1);
      ::dup2(env.stderr_fd >= 0 ? env.stderr_fd : err, 2);
      ::umask(env.umask);
      if (env.closed_standard) {
        for (int fd = 0; fd <= 2; ++fd) ::close(fd);
      }
      ::execve(argv[0], argv.data(), envp.data());
      ::_exit(127);
    }
  }
  ~Daemon() {
    if (pid_ > 0 && !status_) {
      ::kill(pid_, SIGKILL);
      int ignored;
      ::waitpid(pid_, &ignored, 0);
    }
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  pid_t pid() const { return pid_; }
  // How many daemons the test has started: the number in the latest one's output file names.
  static int runs() { return runs_; }
  std::string out() const { return read_file(out_); }
  std::string err() const { return read_file(err_); }
  void signal(int signo) const { ::kill(pid_, signo); }

  // Standard error holds `needle` at least `times` times (the daemon flushes it before it sleeps).
  bool wait_err(const std::string& needle, size_t times = 1, double seconds = 20) const {
    return eventually([&] { return count_of(err(), needle) >= times; }, seconds);
  }
  bool wait_file(const std::string& name, const std::string& content, double seconds = 20) const {
    return eventually([&] { return box_.read(name) == content; }, seconds);
  }
  // The exit status as the shell shows it: the exit code, or 128 + the signal number.
  int wait_exit(double seconds = 20) {
    if (!status_) {
      eventually(
          [&] {
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) != pid_) return false;
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return true;
          },
          seconds);
    }
    return status_ ? *status_ : -1;
  }
  // SIGTERM, then the exit status.
  int stop() {
    signal(SIGTERM);
    return wait_exit();
  }

 private:
  const Sandbox& box_;
  pid_t pid_ = -1;
  std::optional<int> status_;
  fs::path out_, err_;
  static inline int runs_ = 0;
};

// The line of the debug statistics that gives the count of the section kind `label`.
inline std::string counted(const std::string& label, int count) {
  std::string line = label;
  line.resize(23, ' ');
  return "\n" + line + std::to_string(count) + "\n";
}

}  // namespace daemon_test
