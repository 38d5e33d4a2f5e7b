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
// byte, if the line holds one.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace adcdf {

// Where the audit bytes come from. read() returns 0 when nothing more is available now; more
// may arrive later.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  virtual size_t read(char* buffer, size_t size) = 0;
};

// The audit file, read through its descriptor. Owns the descriptor.
class FileSource : public ByteSource {
 public:
  FileSource(int fd, std::string name) : fd_(fd), name_(std::move(name)) {}
  ~FileSource() override;
  FileSource(const FileSource&) = delete;
  FileSource& operator=(const FileSource&) = delete;
  static std::unique_ptr<FileSource> open(const std::string& name);  // null when it cannot
  size_t read(char* buffer, size_t size) override;

 private:
  int fd_;
  std::string name_;
};

// Bytes held in memory, for tests and fuzzing; append() adds bytes as a growing file would.
class MemorySource : public ByteSource {
 public:
  explicit MemorySource(std::string data = {}) : data_(std::move(data)) {}
  void append(std::string_view more) { data_.append(more); }
  size_t read(char* buffer, size_t size) override;

 private:
  std::string data_;
  size_t pos_ = 0;
};

class LineReader {
 public:
  static constexpr size_t kMaxLine = 1199;

  explicit LineReader(ByteSource& source, size_t buffer_size = 1 << 20);

  std::optional<std::string_view> next();

 private:
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
};

}  // namespace adcdf
