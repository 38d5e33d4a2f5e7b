// Bytes that do not fit in memory, kept in an anonymous temporary file.
//
// A section of a million recipients or stray lines produces far more than the daemon keeps in
// memory. What does not fit is appended here in large pieces (one write each, never one per
// line) and read back in order when the section is written out. The file is created on first
// use with O_TMPFILE (File::anonymous) in the output directory, or in /tmp where that file
// system has no such files: it never has a name, so nothing appears beside the output files,
// and the kernel frees it when the descriptor is closed, however the process ends. A crash or a
// power cut at any step leaves nothing to repair: the file is never part of the output, and a
// file without a name is freed by the file system's recovery. clear() gives its blocks back.
#pragma once

#include <cerrno>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "support/error.h"
#include "support/files.h"

namespace adcdf {

class SpillFile {
 public:
  // Where the file is created, when it is not open yet.
  void set_directory(const std::string& directory) {
    if (directory_ != directory) directory_ = directory;
  }

  // Appends `bytes` with one write, creating the file first when needed.
  void append(std::string_view bytes);
  // Reads up to `size` bytes from `offset`; returns how many there were.
  size_t read_at(char* buffer, size_t size, long long offset) const {
    return file_.read_at(buffer, size, offset);
  }
  // Calls sink(std::string_view) with all the bytes, in order, in pieces of at most `piece`.
  template <typename Sink>
  void read_back(size_t piece, Sink&& sink) const;

  long long size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // Forgets the bytes; the file keeps no blocks.
  void clear();

 private:
  File file_;
  std::string directory_ = ".";
  long long size_ = 0;
};

template <typename Sink>
void SpillFile::read_back(size_t piece, Sink&& sink) const {
  if (size_ == 0) return;
  auto buffer = std::make_unique_for_overwrite<char[]>(piece);
  for (long long at = 0; at < size_;) {
    size_t got = read_at(buffer.get(), piece, at);
    if (got == 0) raise_file_error(kReasonRead, "cannot read back", directory_, EIO);
    sink(std::string_view(buffer.get(), got));
    at += static_cast<long long>(got);
  }
}

}  // namespace adcdf
