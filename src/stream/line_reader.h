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
// source, so a later run can start reading just after them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "support/files.h"

namespace adcdf {

// What became of the file behind a source's name since it was opened.
enum class NameChange {
  kNone,       // the same file, or no file at the name for now
  kReplaced,   // another file has the name (the old one was renamed away)
  kTruncated,  // the same file, now shorter than what has been read of it
};

// Where the audit bytes come from. read() returns 0 when nothing more is available now; more
// may arrive later.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  virtual size_t read(char* buffer, size_t size) = 0;
  // Makes the next read start `offset` bytes from the beginning.
  virtual void seek(long long offset) = 0;
  // Copies up to `size` bytes from the beginning of the data; returns how many there were.
  virtual size_t read_head(char* buffer, size_t size) = 0;
  virtual long long size() = 0;
  virtual FileId id() const { return {}; }
  virtual NameChange look_at_name() { return NameChange::kNone; }
  // After look_at_name() saw a change: switches to the file now at the name (or the start of
  // the truncated one), read from its beginning. False when the name has gone again meanwhile
  // and the source stays as it was.
  virtual bool reopen_at_name() { return false; }
  // The name the source is followed under.
  virtual const std::string& name() const;
  // The file with `id` in the directory of the name (the one at the name renamed away), opened
  // to be followed under the same name; null when there is none.
  virtual std::unique_ptr<ByteSource> find_renamed(FileId /*id*/) const { return nullptr; }
  // Reads the file of `other`, a source from find_renamed(), from now on.
  virtual void adopt(ByteSource& /*other*/) {}
};

// The audit file, read through its descriptor. `name` is the name it is followed under, which
// may by now belong to another file.
class FileSource : public ByteSource {
 public:
  FileSource(File file, std::string name)
      : file_(std::move(file)), name_(std::move(name)), regular_(file_.is_regular()) {}
  // Null when it cannot be opened.
  static std::unique_ptr<FileSource> open(const std::string& path, const std::string& name);
  static std::unique_ptr<FileSource> open(const std::string& name) { return open(name, name); }
  size_t read(char* buffer, size_t size) override;
  void seek(long long offset) override;
  size_t read_head(char* buffer, size_t size) override {
    return regular_ ? file_.read_at(buffer, size, 0) : 0;
  }
  long long size() override { return file_.size(); }
  FileId id() const override { return file_.id(); }
  NameChange look_at_name() override;
  bool reopen_at_name() override;
  const std::string& name() const override { return name_; }
  std::unique_ptr<ByteSource> find_renamed(FileId id) const override;
  void adopt(ByteSource& other) override;

 private:
  File file_;
  std::string name_;
  // A pipe or a terminal can neither be read again nor rotated: it is only read on.
  bool regular_;
  long long position_ = 0;  // where the next read starts
  NameChange change_ = NameChange::kNone;
};

// Bytes held in memory, for tests and fuzzing; append() adds bytes as a growing file would.
class MemorySource : public ByteSource {
 public:
  explicit MemorySource(std::string data = {}) : data_(std::move(data)) {}
  void append(std::string_view more) { data_.append(more); }
  size_t read(char* buffer, size_t size) override;
  void seek(long long offset) override {
    pos_ = std::min(static_cast<size_t>(offset), data_.size());
  }
  size_t read_head(char* buffer, size_t size) override;
  long long size() override { return static_cast<long long>(data_.size()); }

 private:
  std::string data_;
  size_t pos_ = 0;
};

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
  // Forgets what is buffered; the source's next read starts at `offset`.
  void reset(long long offset);

 private:
  // next() for the cases the inline part leaves: a full buffer window without a line feed, a
  // NUL byte, the end of the buffered bytes.
  std::optional<std::string_view> next_slowly();
  // Moves the unread bytes to the front and reads more; false when nothing new arrived.
  bool fill();
  // Moves first_nul_ to the next NUL byte at or after the current line, or to end_.
  void find_nul();

  ByteSource& source_;
  std::unique_ptr<char[]> buffer_;
  size_t capacity_;
  size_t begin_ = 0;
  size_t end_ = 0;
  size_t first_nul_ = 0;  // offset of the first NUL byte at or after begin_, or end_ if none
  long long base_ = 0;    // where buffer_[0] stands in the source
};

}  // namespace adcdf
