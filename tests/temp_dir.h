// The one scratch-directory helper of the tests, and whole-file reads and writes.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

namespace adcdf::testing {

namespace fs = std::filesystem;

inline std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

inline void write_file(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline size_t count_of(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

// The size of a file; 0 when there is none.
inline uintmax_t size_of(const fs::path& path) {
  std::error_code error;
  const uintmax_t size = fs::file_size(path, error);
  return error ? 0 : size;
}

// Appends with one write, as the mail server would.
inline void append_file(const fs::path& path, const std::string& text) {
  int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  ::close(fd);
}

// A fresh directory, removed with everything in it at the end of the test. Its files are kept in
// the subdirectory `inner` when one is named, so that the root can hold other things beside them.
class TempDir {
 public:
  explicit TempDir(const std::string& inner = "") {
    std::string pattern = (fs::temp_directory_path() / "ekadcdf-test-XXXXXX").string();
    root_ = ::mkdtemp(pattern.data());
    path_ = inner.empty() ? root_ : root_ / inner;
    fs::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const fs::path& root() const { return root_; }
  const fs::path& path() const { return path_; }
  std::string file(const std::string& name) const { return (path_ / name).string(); }
  std::string read(const std::string& name) const { return read_file(file(name)); }
  void write(const std::string& name, const std::string& text) const {
    write_file(file(name), text);
  }
  void append(const std::string& name, const std::string& text) const {
    append_file(file(name), text);
  }
  bool exists(const std::string& name) const { return fs::exists(file(name)); }
  // Every file whose name starts with `prefix`, with its content; the position file, whose
  // content is the daemon's own business, is left out.
  std::map<std::string, std::string> files(const std::string& prefix = "cdf.") const {
    std::map<std::string, std::string> found;
    for (const auto& entry : fs::directory_iterator(path_)) {
      std::string name = entry.path().filename().string();
      if (name.starts_with(prefix) && !name.ends_with(".POS"))
        found[name] = read_file(entry.path());
    }
    return found;
  }

 private:
  fs::path root_;
  fs::path path_;
};

}  // namespace adcdf::testing
