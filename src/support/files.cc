#include "support/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "support/error.h"
#include "support/faults.h"

namespace adcdf {
namespace {

// The errno an installed fault injector wants `event` to fail with, or 0.
int injected(const FileEvent& event, size_t* partial = nullptr) {
  FaultInjector* injector = fault_injector();
  return injector == nullptr ? 0 : injector->fail(event, partial);
}

void report_done(const FileEvent& event) {
  if (FaultInjector* injector = fault_injector()) injector->done(event);
}

struct stat status_of(int fd, const std::string& name) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) raise_file_error(kReasonRead, "cannot examine", name, errno);
  return st;
}

void refuse_status(const struct stat& st, const std::string& name, bool written) {
  if (S_ISLNK(st.st_mode)) {
    throw AdcdfError(kGroupFile, kReasonLink, name + " is a symbolic link");
  }
  if (!S_ISREG(st.st_mode)) {
    throw AdcdfError(kGroupFile, kReasonSpecial, name + " is not a regular file");
  }
  if (written && st.st_nlink > 1) {
    throw AdcdfError(kGroupFile, kReasonHardLink,
                     name + " has " + std::to_string(st.st_nlink) + " hard links");
  }
}

}  // namespace

File& File::operator=(File&& other) noexcept {
  if (this != &other) {
    close();
    fd_ = std::exchange(other.fd_, -1);
    name_ = std::move(other.name_);
  }
  return *this;
}

// Opens the daemon's own files: without following a link and without blocking, and refused
// unless a regular file (with no other link when written), before anything is read or written.
File File::open_or_throw(const std::string& name, int flags) {
  if (int err = injected({FileOp::kOpen, name}))
    raise_file_error(kReasonOpen, "cannot open", name, err);
  int fd = ::open(name.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0640);
  if (fd < 0 && errno == ELOOP) refuse_link(name);
  if (fd < 0) raise_file_error(kReasonOpen, "cannot open", name, errno);
  File file(fd, name);
  refuse_status(status_of(fd, name), name, (flags & O_ACCMODE) != O_RDONLY);
  report_done({FileOp::kOpen, name, fd});
  return file;
}

File File::append(const std::string& name) {
  return open_or_throw(name, O_WRONLY | O_CREAT | O_APPEND);
}

File File::create(const std::string& name) {
  // Emptied only once known to be a file of its own.
  File file = open_or_throw(name, O_WRONLY | O_CREAT | O_APPEND);
  file.truncate(0);
  return file;
}

File File::read_write(const std::string& name) {
  return open_or_throw(name, O_RDWR);
}

File File::read_write_create(const std::string& name) {
  return open_or_throw(name, O_RDWR | O_CREAT);
}

File File::anonymous(const std::string& directory) {
  return open_or_throw(directory, O_TMPFILE | O_RDWR | O_EXCL);
}

File File::duplicate(int fd, const std::string& name) {
  int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) raise_file_error(kReasonOpen, "cannot duplicate the descriptor of", name, errno);
  return File(copy, name);
}

File File::read_only(const std::string& name, bool follow_links) {
  if (!follow_links) return open_or_throw(name, O_RDONLY);
  int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) raise_file_error(kReasonOpen, "cannot open", name, errno);
  return File(fd, name);
}

File File::null_device() {
  const std::string name = "/dev/null";
  int fd = ::open(name.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) raise_file_error(kReasonOpen, "cannot open", name, errno);
  return File(fd, name);
}

std::optional<File> File::regular_for_reading(const std::string& name, bool follow_links,
                                              std::string& why) {
  int fd = ::open(name.c_str(),
                  O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | (follow_links ? 0 : O_NOFOLLOW));
  if (fd < 0) {
    why = std::strerror(errno);
    return std::nullopt;
  }
  File file(fd, name);
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    why = "not a regular file";
    return std::nullopt;
  }
  return file;
}

void File::write_all(std::string_view data) {
  size_t partial = data.size();
  if (int err = injected({FileOp::kWrite, name_, fd_}, &partial)) {
    if (partial < data.size()) write_raw(data.substr(0, partial));
    raise_file_error(kReasonWrite, "cannot write", name_, err);
  }
  write_raw(data);
}

void File::write_raw(std::string_view data, long long offset) {
  while (!data.empty()) {
    ssize_t n = offset < 0 ? ::write(fd_, data.data(), data.size())
                           : ::pwrite(fd_, data.data(), data.size(), offset);
    if (n < 0) {
      if (errno == EINTR) continue;
      raise_file_error(kReasonWrite, "cannot write", name_, errno);
    }
    if (n == 0) raise_file_error(kReasonWrite, "cannot write", name_, ENOSPC);
    data.remove_prefix(static_cast<size_t>(n));
    if (offset >= 0) offset += n;
  }
}

void File::write_at(std::string_view data, long long offset) {
  size_t partial = data.size();
  if (int err = injected({FileOp::kWrite, name_, fd_}, &partial)) {
    raise_file_error(kReasonWrite, "cannot write", name_, err);
  }
  write_raw(data, offset);
}

size_t File::read_at(char* buffer, size_t size, long long offset) const {
  for (;;) {
    ssize_t n = ::pread(fd_, buffer, size, offset);
    if (n >= 0) return static_cast<size_t>(n);
    if (errno != EINTR) raise_file_error(kReasonRead, "cannot read", name_, errno);
  }
}

std::string File::contents() const {
  std::string text(static_cast<size_t>(size()), '\0');
  text.resize(read_at(text.data(), text.size(), 0));
  return text;
}

long long File::size() const {
  return status_of(fd_, name_).st_size;
}

FileId File::id() const {
  const struct stat st = status_of(fd_, name_);
  return {static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino)};
}

bool File::is_regular() const {
  return S_ISREG(status_of(fd_, name_).st_mode);
}

void File::sync() {
  sync_descriptor(fd_, name_);
}

void sync_descriptor(int fd, const std::string& name) {
  if (int err = injected({FileOp::kSync, name, fd})) {
    raise_file_error(kReasonWrite, "cannot sync", name, err);
  }
  // EINVAL: a special file such as /dev/null, which has nothing to put on a disk.
  if (::fdatasync(fd) != 0 && errno != EINVAL) {
    raise_file_error(kReasonWrite, "cannot sync", name, errno);
  }
}

void File::truncate(long long length) {
  if (int err = injected({FileOp::kTruncate, name_, fd_})) {
    raise_file_error(kReasonTruncate, "cannot cut", name_, err);
  }
  if (::ftruncate(fd_, length) != 0) raise_file_error(kReasonTruncate, "cannot cut", name_, errno);
}

void File::close() {
  if (fd_ >= 0) ::close(std::exchange(fd_, -1));
}

void Appender::append(std::string_view data) {
  try {
    file_.write_all(data);
  } catch (const AdcdfError&) {
    // Cut off whatever part of the write reached the file, so no torn record stays behind.
    try {
      file_.truncate(size_);
    } catch (const AdcdfError&) {
    }
    throw;
  }
  size_ += static_cast<long long>(data.size());
  unsynced_ = true;
}

void Appender::cut(long long length) {
  file_.truncate(length);
  size_ = length;
}

void Appender::sync() {
  if (!unsynced_) return;
  file_.sync();
  unsynced_ = false;
}

bool file_exists(const std::string& name) {
  struct stat st {};
  return ::lstat(name.c_str(), &st) == 0;
}

void refuse_link(const std::string& name) {
  struct stat st {};
  if (::lstat(name.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
    throw AdcdfError(kGroupFile, kReasonLink, name + " is a symbolic link");
  }
}

void refuse_planted(const std::string& name, bool written) {
  struct stat st {};
  if (::lstat(name.c_str(), &st) == 0) refuse_status(st, name, written);
}

std::optional<FileId> file_id(const std::string& name) {
  struct stat st {};
  if (::stat(name.c_str(), &st) != 0) return std::nullopt;
  return FileId{static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino)};
}

std::string directory_of(const std::string& name) {
  size_t slash = name.rfind('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : name.substr(0, slash);
}

void sync_directory_of(const std::string& name) {
  const std::string dir = directory_of(name);
  if (int err = injected({FileOp::kSyncDirectory, dir})) {
    raise_file_error(kReasonWrite, "cannot sync", dir, err);
  }
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) raise_file_error(kReasonOpen, "cannot open", dir, errno);
  int failed = ::fsync(fd) != 0 ? errno : 0;
  ::close(fd);
  if (failed != 0 && failed != EINVAL) raise_file_error(kReasonWrite, "cannot sync", dir, failed);
}

void rename_file(const std::string& from, const std::string& to) {
  refuse_link(from);
  refuse_link(to);
  const FileEvent event{FileOp::kRename, from, -1, &to};
  if (int err = injected(event)) {
    raise_file_error(kReasonRename, "cannot rename to " + to + ":", from, err);
  }
  if (std::rename(from.c_str(), to.c_str()) != 0)
    raise_file_error(kReasonRename, "cannot rename to " + to + ":", from, errno);
  report_done(event);
}

void remove_file(const std::string& name) {
  refuse_link(name);
  if (int err = injected({FileOp::kRemove, name})) {
    raise_file_error(kReasonRemove, "cannot remove", name, err);
  }
  if (::unlink(name.c_str()) != 0) raise_file_error(kReasonRemove, "cannot remove", name, errno);
  report_done({FileOp::kRemove, name});
}

}  // namespace adcdf
