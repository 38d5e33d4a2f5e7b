// File operations for the output generations and the error file.
//
// Every failure throws AdcdfError naming the file and the system's reason, so the caller never
// has to check a result: a write that fails or writes short, a rename or removal that fails,
// an open that fails all end the daemon through the outer block. Nothing is buffered here: a
// write() call hands the bytes to the kernel, so once it returns they survive a crash of the
// process.
#pragma once

#include <string>
#include <string_view>

namespace adcdf {

class File {
 public:
  File() = default;
  ~File() { close(); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  File(File&& other) noexcept : fd_(other.fd_), name_(std::move(other.name_)) { other.fd_ = -1; }
  File& operator=(File&& other) noexcept;

  // Opens for appending, creating an empty file when there is none.
  static File append(const std::string& name);
  // Opens for writing from the start, emptying an existing file.
  static File create(const std::string& name);
  // Opens for reading and writing, without creating or emptying.
  static File read_write(const std::string& name);
  // Opens for reading.
  static File read_only(const std::string& name);

  int fd() const { return fd_; }
  const std::string& name() const { return name_; }

  // Writes all of `data` with as few system calls as the kernel allows.
  void write_all(std::string_view data);
  // Reads up to `size` bytes at `offset`; returns how many were read.
  size_t read_at(char* buffer, size_t size, long long offset) const;
  long long size() const;
  void truncate(long long length);
  void close();

 private:
  File(int fd, std::string name) : fd_(fd), name_(std::move(name)) {}
  static File open_or_throw(const std::string& name, int flags);
  void write_raw(std::string_view data);

  int fd_ = -1;
  std::string name_;
};

bool file_exists(const std::string& name);
void rename_file(const std::string& from, const std::string& to);
void remove_file(const std::string& name);

}  // namespace adcdf
