// Where the audit bytes come from: the audit file through the descriptor the daemon holds, a
// rotated audit file that logrotate compressed with gzip, or memory (tests and fuzzing).
//
// A source only reads: it never writes, creates, renames or removes anything, so a crash or a
// power cut while one is open leaves nothing behind. Which file is read when, and what happens
// when the file at the audit file's name changes, is decided by AuditInput (audit_input.h) with
// the rules of rotated_files.h.
#pragma once

#include <sys/types.h>
#include <zlib.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "support/files.h"

namespace adcdf {

// read() returns 0 when nothing more is available now; more may arrive later (a file that grows)
// or not (a rotated file, which no longer grows).
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  virtual size_t read(char* buffer, size_t size) = 0;
  // Makes the next read start `offset` bytes from the beginning.
  virtual void seek(long long offset) = 0;
  // Copies up to `size` bytes from the beginning of the data; returns how many there were.
  virtual size_t read_head(char* buffer, size_t size) = 0;
  // How many bytes the source holds now (uncompressed).
  virtual long long size() = 0;
  virtual FileId id() const { return {}; }
  // When the file was last written; zero for memory and streams.
  virtual timespec modified() const { return {}; }
  // A regular file, which can be read again, checked and rotated (not a pipe or a terminal).
  virtual bool regular() const { return false; }
  // A read found that the file no longer begins as it began: it was truncated and written again.
  virtual bool rewritten() const { return false; }
  // The name the source was opened under.
  virtual const std::string& name() const;
};

// A plain file through its descriptor. Bytes read after the first are handed on only while the
// file still begins with the bytes it began with: a file copied and truncated, then written again
// past the offset between two reads (the daemon busy, the mail server quick), reads as ended
// instead, so that AuditInput finds the copy rather than taking the middle of new data.
class FileSource : public ByteSource {
 public:
  FileSource(File file, std::string name);
  // The audit file as given on the command line: links followed, a pipe read as a stream. Null
  // when it cannot be opened.
  static std::unique_ptr<FileSource> open(const std::string& name);
  size_t read(char* buffer, size_t size) override;
  void seek(long long offset) override;
  size_t read_head(char* buffer, size_t size) override {
    return regular_ ? file_.read_at(buffer, size, 0) : 0;
  }
  long long size() override { return file_.size(); }
  FileId id() const override { return file_.id(); }
  timespec modified() const override;
  bool regular() const override { return regular_; }
  bool rewritten() const override { return rewritten_; }
  const std::string& name() const override { return name_; }

 private:
  File file_;
  std::string name_;
  // Whether the file still begins with head_; keeps head_ up to kFingerprintBytes while reading.
  bool same_start(const char* read, size_t n);

  bool regular_;
  long long position_ = 0;  // where the next read starts
  std::string head_;        // the file's first bytes, as far as they are known
  bool rewritten_ = false;  // a read found other first bytes (until the next seek)
};

// A gzip-compressed file, read decompressed. A damaged or cut stream ends the data where it
// stops making sense; failed() then says so.
class GzipSource : public ByteSource {
 public:
  // Takes an open, regular file; null when it does not begin as a gzip stream.
  static std::unique_ptr<GzipSource> open(File file, std::string name);
  ~GzipSource() override;
  size_t read(char* buffer, size_t size) override;
  void seek(long long offset) override;
  size_t read_head(char* buffer, size_t size) override { return head_.copy(buffer, size); }
  long long size() override;
  FileId id() const override { return file_.id(); }
  timespec modified() const override;
  bool regular() const override { return true; }
  const std::string& name() const override { return name_; }
  bool failed() const { return failed_; }

 private:
  GzipSource(File file, std::string name, gzFile stream);
  File file_;  // kept for its identity and time; the stream reads a duplicate descriptor
  std::string name_;
  gzFile stream_;
  std::string head_;  // the first decompressed bytes, for read_head()
  std::optional<long long> size_;
  long long position_ = 0;
  bool failed_ = false;
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
  size_t read_head(char* buffer, size_t size) override { return data_.copy(buffer, size); }
  long long size() override { return static_cast<long long>(data_.size()); }

 private:
  std::string data_;
  size_t pos_ = 0;
};

}  // namespace adcdf
