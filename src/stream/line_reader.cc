#include "stream/line_reader.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "support/error.h"

namespace adcdf {

std::unique_ptr<FileSource> FileSource::open(const std::string& path, const std::string& name) {
  try {
    return std::make_unique<FileSource>(File::read_only(path, true), name);
  } catch (const AdcdfError&) {
    return nullptr;
  }
}

size_t FileSource::read(char* buffer, size_t size) {
  // read(), not pread(): the descriptor's offset shows how far the daemon has read.
  for (;;) {
    ssize_t n = ::read(file_.fd(), buffer, size);
    if (n >= 0) {
      position_ += n;
      return static_cast<size_t>(n);
    }
    if (errno != EINTR) raise_file_error(kReasonRead, "cannot read", name_, errno);
  }
}

void FileSource::seek(long long offset) {
  if (offset == position_) return;
  if (!regular_ || ::lseek(file_.fd(), static_cast<off_t>(offset), SEEK_SET) < 0) {
    raise_file_error(kReasonRead, "cannot seek in", name_, regular_ ? errno : ESPIPE);
  }
  position_ = offset;
}

NameChange FileSource::look_at_name() {
  std::optional<FileId> at_name = file_id(name_);
  if (!regular_ || !at_name) return change_ = NameChange::kNone;
  if (*at_name != id()) return change_ = NameChange::kReplaced;
  return change_ = size() < position_ ? NameChange::kTruncated : NameChange::kNone;
}

bool FileSource::reopen_at_name() {
  NameChange change = std::exchange(change_, NameChange::kNone);
  if (change == NameChange::kNone) return false;
  if (change == NameChange::kReplaced) {
    // The name may have gone again meanwhile: go on with the old file and look again later.
    auto now = open(name_, name_);
    if (!now) return false;
    file_ = std::move(now->file_);
  }
  seek(0);
  return true;
}

std::unique_ptr<ByteSource> FileSource::find_renamed(FileId id) const {
  size_t slash = name_.rfind('/');
  std::string dir = slash == std::string::npos ? "." : name_.substr(0, slash + 1);
  DIR* listing = ::opendir(dir.c_str());
  if (listing == nullptr) return nullptr;
  std::unique_ptr<ByteSource> found;
  while (const struct dirent* entry = ::readdir(listing)) {
    if (entry->d_ino != id.ino) continue;
    std::string path = (slash == std::string::npos ? "" : dir) + entry->d_name;
    auto candidate = open(path, name_);
    if (candidate && candidate->id() == id) {
      found = std::move(candidate);
      break;
    }
  }
  ::closedir(listing);
  return found;
}

void FileSource::adopt(ByteSource& other) {
  file_ = std::move(static_cast<FileSource&>(other).file_);
  change_ = NameChange::kNone;
  seek(0);
}

const std::string& ByteSource::name() const {
  static const std::string kNone;
  return kNone;
}

size_t MemorySource::read_head(char* buffer, size_t size) {
  size_t n = std::min(size, data_.size());
  std::memcpy(buffer, data_.data(), n);
  return n;
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

std::optional<std::string_view> LineReader::next_slowly() {
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

std::optional<std::string_view> LineReader::rest() {
  if (begin_ == end_) return std::nullopt;
  const char* start = buffer_.get() + begin_;
  size_t length = end_ - begin_;
  if (first_nul_ < end_) length = first_nul_ - begin_;
  begin_ = end_;
  find_nul();
  return std::string_view(start, length);
}

void LineReader::reset(long long offset) {
  begin_ = end_ = first_nul_ = 0;
  base_ = offset;
}

bool LineReader::fill() {
  if (begin_ > 0) {
    base_ += static_cast<long long>(begin_);
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
