#include "support/pidfile.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace adcdf {
namespace {

// The process id a regular file at `path` holds; 0 for anything else (a link, a directory, a
// FIFO, which is not waited for, a file that holds no number).
long pid_in(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return 0;
  struct stat st {};
  char text[32] = {};
  bool regular = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  ssize_t n = regular ? ::read(fd, text, sizeof text - 1) : -1;
  ::close(fd);
  return n > 0 ? std::strtol(text, nullptr, 10) : 0;
}

bool create(const std::string& path) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  std::string text = std::to_string(::getpid()) + "\n";
  bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  if (!written) ::unlink(path.c_str());
  return written;
}

}  // namespace

std::string file_name_of(const std::string& path) {
  auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string pid_file_path(const std::string& name) {
  const char* dir = std::getenv("RUNTIME_DIRECTORY");
  std::string directory = dir && *dir ? dir : "/tmp";
  // systemd lists every runtime directory of the unit, separated by colons: the first is ours.
  directory = directory.substr(0, directory.find(':'));
  return directory + "/" + name + ".pid";
}

void record_pid(const std::string& name, const std::string& base) {
  std::string path = pid_file_path(name);
  std::string prefix = base + ".";
  if (path.compare(0, prefix.size(), prefix) == 0) return;
  if (create(path) || errno != EEXIST) return;
  // Only an entry left behind by a process that is gone is replaced; a link, anything that is
  // not a regular file, or the entry of a running process stays, and this one goes without.
  long pid = pid_in(path);
  if (pid > 0 && ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH &&
      ::unlink(path.c_str()) == 0) {
    create(path);
  }
}

void remove_pid(const std::string& name) {
  std::string path = pid_file_path(name);
  if (pid_in(path) == ::getpid()) ::unlink(path.c_str());
}

}  // namespace adcdf
