#include "stream/line_reader.h"

#include <algorithm>
#include <cstring>

namespace adcdf {

LineReader::LineReader(ByteSource& source, size_t buffer_size)
    : source_(&source),
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

void LineReader::reset(ByteSource& source, long long offset) {
  source_ = &source;
  source.seek(offset);
  begin_ = end_ = first_nul_ = 0;
  base_ = offset;
  const size_t covered = static_cast<size_t>(std::min<long long>(offset, kFingerprintBytes));
  head_size_ = offset > 0 ? source.read_head(head_, covered) : 0;
}

bool LineReader::fill() {
  if (begin_ > 0) {
    base_ += static_cast<long long>(begin_);
    std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
    end_ -= begin_;
    first_nul_ -= begin_;
    begin_ = 0;
  }
  size_t n = source_->read(buffer_.get() + end_, capacity_ - end_);
  size_t old_end = end_;
  end_ += n;
  if (base_ + static_cast<long long>(old_end) == static_cast<long long>(head_size_) &&
      head_size_ < kFingerprintBytes) {
    const size_t more = std::min(n, kFingerprintBytes - head_size_);
    std::memcpy(head_ + head_size_, buffer_.get() + old_end, more);
    head_size_ += more;
  }
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
