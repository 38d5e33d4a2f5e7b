// Files in one directory that change together, committed by a state file: what the CSV and
// JSON Lines targets write through.
//
// A run never writes into a committed file: it writes what it adds to each file into a side file
// beside it (".<name>.<commit>.tmp"), syncs them, then writes a new state file that names the
// commit and, per file, its size before the run, syncs it, renames it into place and syncs the
// directory: that rename commits the run. Each side file is then appended to its file, the file
// synced, the side file removed and the directory synced. A crash or a power cut before the
// rename leaves side files the next run removes (a power cut may also lose them or the rename:
// the state is then the one before, with the files it names); after it, side files the next run
// appends again, having cut their file back to the size the state file recorded (a power cut may
// have lost the appended bytes or the removal, never the side file before its append). So a run
// costs what it adds, and a reader sees each file as it was, growing by whole committed runs.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "export/target.h"
#include "support/files.h"

namespace adcdf::exporter {

inline constexpr size_t kFlushAt = 1 << 20;  // bytes gathered before a write

// Where a row came from, read back from the end of its line: the last two numbers.
using OriginOf = bool (*)(std::string_view line, int64_t& generation, int64_t& number);

class FileSet {
 public:
  // What a run adds to one file: its lines gather in `buffer`, done() hands a full one over.
  struct Output {
    std::string name;
    File side;
    std::string buffer;
    long long before = 0;  // the size of the file before the run
    void done() {
      if (buffer.size() >= kFlushAt) flush();
    }
    void flush() {
      side.write_all(buffer);
      buffer.clear();
    }
  };

  // `names`: every file the set may write; `state`: the name of its state file.
  FileSet(std::string dir, std::string state, std::vector<std::string> names)
      : dir_(std::move(dir)), state_(std::move(state)), names_(std::move(names)) {
    names_.push_back(state_);
  }
  ~FileSet() { abandon(); }

  // Locks the set, finishes a commit a stopped run left, and returns what is loaded.
  std::vector<Loaded> begin();
  int64_t new_id() { return next_id_++; }
  // The output of `name` for this run; a new file starts with `first`. Valid until the run ends.
  Output& output(const std::string& name, std::string_view first);
  void commit(const LoadedChange& change);
  void abandon();
  // Per generation number, the rows the committed files hold (after `header_lines` each).
  std::map<int64_t, Origins> origins(OriginOf origin_of, size_t header_lines) const;

 private:
  using Appends = std::vector<std::pair<std::string, long long>>;  // file, size before the run
  static std::string hidden(const std::string& name) {
    return name.starts_with('.') ? name : "." + name;
  }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }
  std::string temp(const std::string& name, int64_t commit) const {
    return path(hidden(name) + "." + std::to_string(commit) + ".tmp");
  }
  std::optional<long long> committed_size(const std::string& name) const {
    if (!file_exists(path(name))) return std::nullopt;
    return File::read_only(path(name)).size();
  }
  void finish(const Appends& appends);
  Appends read_state();
  void remove_temps();
  bool owns(std::string_view file) const;

  std::string dir_;
  std::string state_;
  std::vector<std::string> names_;
  File lock_;  // locked while a run is under way
  int64_t commit_ = 0;
  int64_t next_id_ = 1;
  std::vector<Loaded> loaded_;
  std::vector<std::unique_ptr<Output>> outputs_;
};

}  // namespace adcdf::exporter
