#include "stream/line_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "support/error.h"

namespace adcdf {

FileSource::~FileSource() {
  if (fd_ >= 0) ::close(fd_);
}

std::unique_ptr<FileSource> FileSource::open(const std::string& name) {
  int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  return std::make_unique<FileSource>(fd, name);
}

size_t FileSource::read(char* buffer, size_t size) {
  for (;;) {
    ssize_t n = ::read(fd_, buffer, size);
    if (n >= 0) return static_cast<size_t>(n);
    if (errno != EINTR) raise_file_error(kReasonRead, "cannot read", name_, errno);
  }
}

size_t MemorySource::read(char* buffer, size_t size) {
  size_t n = std::min(size, data_.size() - pos_);
  std::memcpy(buffer, data_.data() + pos_, n);
  pos_ += n;
  return n;
}

LineReader::LineReader(ByteSource& source, size_t buffer_size)
    : source_(source),
      buffer_(new char[std::max(buffer_size, 2 * kMaxLine)]),
      capacity_(std::max(buffer_size, 2 * kMaxLine)) {}

std::optional<std::string_view> LineReader::next() {
  for (;;) {
    size_t available = end_ - begin_;
    const char* start = buffer_.get() + begin_;
    size_t window = std::min(available, kMaxLine);
    const char* newline = static_cast<const char*>(std::memchr(start, '\n', window));
    size_t length = 0;
    if (newline != nullptr) {
      length = static_cast<size_t>(newline - start) + 1;
    } else if (available >= kMaxLine) {
      length = kMaxLine;
    } else {
      if (!fill()) return std::nullopt;
      continue;
    }
    size_t line_begin = begin_;
    begin_ += length;
    if (first_nul_ < begin_) {
      // The line holds a NUL byte: like a C string, it ends there. Look for the next one.
      length = first_nul_ - line_begin;
      find_nul();
    }
    return std::string_view(start, length);
  }
}

bool LineReader::fill() {
  if (begin_ > 0) {
    std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
    end_ -= begin_;
    first_nul_ -= begin_;
    begin_ = 0;
  }
  size_t n = source_.read(buffer_.get() + end_, capacity_ - end_);
  size_t old_end = end_;
  end_ += n;
  if (first_nul_ >= old_end) {
    first_nul_ = old_end;
    find_nul();
  }
  return n > 0;
}

void LineReader::find_nul() {
  size_t from = std::max(first_nul_, begin_);
  if (from >= end_) {
    first_nul_ = end_;
    return;
  }
  const void* nul = std::memchr(buffer_.get() + from, '\0', end_ - from);
  first_nul_ =
      nul == nullptr ? end_ : static_cast<size_t>(static_cast<const char*>(nul) - buffer_.get());
}

}  // namespace adcdf
