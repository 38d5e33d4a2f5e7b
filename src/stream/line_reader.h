// Splits the audit byte stream into lines.
//
// A line is handed on only when it is complete: it ends with its newline, or it has reached
// 1,199 characters, the most one read takes (a longer line arrives as several pieces, each one
// counted as a line by the callers). At the end of the available bytes a partial line is held
// back until its newline arrives or it grows to 1,199 characters; next() then reports that no
// line is available yet, and a later call returns lines appended since. Nothing is ever handed
// on twice.
//
// The returned view stays valid until the next call. Like a C string it ends at the first NUL
// byte, if the line holds one. offset() tells where the bytes handed out so far end in the
// source, so a later run can start reading just after them; head() keeps the source's first
// bytes as they were read, so that a later look can tell whether the file still begins with them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "stream/audit_sources.h"
#include "support/hash.h"

namespace adcdf {

class LineReader {
 public:
  static constexpr size_t kMaxLine = 1199;

  explicit LineReader(ByteSource& source, size_t buffer_size = 1 << 20);

  // The next complete line; nothing when none is available yet.
  std::optional<std::string_view> next() {
    // The common case, a line feed within the buffered bytes and no NUL byte before it.
    const char* start = buffer_.get() + begin_;
    const size_t window = std::min(end_ - begin_, kMaxLine);
    const void* newline = std::memchr(start, '\n', window);
    if (newline == nullptr) return next_slowly();
    const size_t length = static_cast<size_t>(static_cast<const char*>(newline) - start) + 1;
    if (first_nul_ < begin_ + length) return next_slowly();
    begin_ += length;
    return std::string_view(start, length);
  }
  // The bytes held back as the beginning of a line, handed out as a line of their own: for the
  // end of a file that will not grow any more.
  std::optional<std::string_view> rest();
  // Where the bytes handed out so far end in the source.
  long long offset() const { return base_ + static_cast<long long>(begin_); }
  // Forgets what is buffered; reads `source` from `offset` on.
  void reset(ByteSource& source, long long offset);
  // The first bytes of the source (at most kFingerprintBytes), as far as it has been read.
  std::string_view head() const { return {head_, head_size_}; }

 private:
  // next() for the cases the inline part leaves: a full buffer window without a line feed, a
  // NUL byte, the end of the buffered bytes.
  std::optional<std::string_view> next_slowly();
  // Moves the unread bytes to the front and reads more; false when nothing new arrived.
  bool fill();
  // Moves first_nul_ to the next NUL byte at or after the current line, or to end_.
  void find_nul();

  ByteSource* source_;
  std::unique_ptr<char[]> buffer_;
  size_t capacity_;
  size_t begin_ = 0;
  size_t end_ = 0;
  size_t first_nul_ = 0;  // offset of the first NUL byte at or after begin_, or end_ if none
  long long base_ = 0;    // where buffer_[0] stands in the source
  char head_[kFingerprintBytes];
  size_t head_size_ = 0;
};

}  // namespace adcdf
