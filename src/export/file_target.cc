// CSV files and JSON Lines.
//
// A run never writes into a committed file: it writes what it adds to each file into a side file
// beside it (".<name>.<commit>.tmp"), syncs them, then writes a new state file that names the
// commit and, per file, its size before the run, syncs it and renames it into place: that rename
// commits the run. Each side file is then appended to its file, the file synced, the side file
// removed and the directory synced. A run that stops before the commit leaves side files that
// the next run removes (a power cut loses them or the state file's rename, both harmless); one
// that stops after it leaves side files that the next run appends again, having cut their file
// back to the size the state file recorded. So a run costs what it adds, and a reader sees each
// file as it was, growing by whole committed runs.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "export/target.h"
#include "export/values.h"
#include "support/files.h"

namespace adcdf::exporter {
namespace {

constexpr size_t kFlushAt = 1 << 20;
constexpr std::string_view kStateTitle = "ekadcdf-export state 2";
constexpr std::string_view kOldStateTitle = "ekadcdf-export state 1";

[[noreturn]] void fail(const std::string& what) {
  throw ExportError(what + ": " + std::strerror(errno));
}

// Appends the contents of `from` to `to`, a block at a time.
void append_file(const File& from, File& to) {
  std::string block(kFlushAt, '\0');
  for (long long at = 0, n;
       (n = static_cast<long long>(from.read_at(block.data(), block.size(), at))) > 0; at += n) {
    to.write_all(std::string_view(block.data(), static_cast<size_t>(n)));
  }
}

// A field of the state file: tabs, line feeds and backslashes escaped; "\N" for none.
void put_field(std::string& out, const std::string* value) {
  out.push_back('\t');
  if (value == nullptr) {
    out.append("\\N");
    return;
  }
  for (char c : *value) {
    if (c == '\\' || c == '\t' || c == '\n') {
      out.push_back('\\');
      c = c == '\t' ? 't' : c == '\n' ? 'n' : c;
    }
    out.push_back(c);
  }
}

std::vector<std::string> get_fields(std::string_view line) {
  std::vector<std::string> fields(1);
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '\t') {
      fields.emplace_back();
    } else if (line[i] == '\\' && i + 1 < line.size()) {
      char c = line[++i];
      fields.back().push_back(c == 't' ? '\t' : c == 'n' ? '\n' : c == 'N' ? '\0' : c);
    } else {
      fields.back().push_back(line[i]);
    }
  }
  return fields;
}

// Where a row came from, read back from the end of its line: the last two numbers.
using OriginOf = bool (*)(std::string_view line, int64_t& generation, int64_t& number);

// Files in one directory that change together, with the state file that commits them.
class FileSet {
 public:
  // What a run adds to one file.
  class Output {
   public:
    Output(std::string name, File side) : name_(std::move(name)), side_(std::move(side)) {}
    std::string& buffer() { return buffer_; }
    // Hands a full buffer to the side file.
    void done() {
      if (buffer_.size() >= kFlushAt) flush();
    }

   private:
    friend class FileSet;
    void flush() {
      side_.write_all(buffer_);
      buffer_.clear();
    }
    std::string name_;
    File side_;
    std::string buffer_;
    long long before_ = 0;  // the size of the file before the run
  };

  // `names`: every file the set may write.
  FileSet(std::string dir, std::string state, std::vector<std::string> names)
      : dir_(std::move(dir)), state_(std::move(state)), names_(std::move(names)) {
    names_.push_back(state_);
  }
  ~FileSet() { abandon(); }

  std::vector<Loaded> begin() {
    const std::string lock = path(state_ + ".lock");
    lock_ = ::open(lock.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (lock_ < 0) fail("cannot open " + lock);
    while (::flock(lock_, LOCK_EX) != 0) {
      if (errno != EINTR) fail("cannot lock " + lock);
    }
    finish(read_state());
    remove_temps();
    next_id_ = 1;
    for (const Loaded& l : loaded_) next_id_ = std::max(next_id_, l.id + 1);
    return loaded_;
  }

  int64_t new_id() { return next_id_++; }

  // The output of `name` for this run; a new file starts with `first`. Valid until the run ends.
  Output& output(const std::string& name, std::string_view first) {
    for (auto& out : outputs_) {
      if (out->name_ == name) return *out;
    }
    Output& out = *outputs_.emplace_back(
        std::make_unique<Output>(name, File::create(temp(name, commit_ + 1))));
    const std::optional<long long> size = committed_size(name);
    out.before_ = size.value_or(0);
    if (!size) out.buffer_.assign(first);
    return out;
  }

  void commit(const LoadedChange& change) {
    for (auto& out : outputs_) {
      out->flush();
      out->side_.sync();
    }
    std::vector<Loaded> loaded = change.entries;
    for (const Loaded& old : loaded_) {
      const auto same = [&](int64_t id) { return id == old.id; };
      if (std::none_of(change.entries.begin(), change.entries.end(),
                       [&](const Loaded& l) { return same(l.id); }) &&
          std::none_of(change.forgotten.begin(), change.forgotten.end(), same)) {
        loaded.push_back(old);
      }
    }
    std::string text = std::string(kStateTitle) + "\ncommit " + std::to_string(commit_ + 1) + "\n";
    std::vector<std::pair<std::string, long long>> appends;
    for (auto& out : outputs_) appends.emplace_back(out->name_, out->before_);
    for (const auto& [name, before] : appends) {
      text.append("append ")
          .append(std::to_string(before))
          .append(" ")
          .append(name)
          .push_back('\n');
    }
    for (const Loaded& l : loaded) {
      text.append("loaded");
      for (const std::string& v : {std::to_string(l.id), l.source, std::to_string(l.key_bytes),
                                   l.key, std::to_string(l.bytes), std::to_string(l.lines), l.date,
                                   std::to_string(l.first_loaded)}) {
        put_field(text, &v);
      }
      put_field(text, l.header ? &l.host : nullptr);
      text.push_back('\n');
    }
    File state = File::create(temp(state_, commit_ + 1));
    state.write_all(text);
    state.sync();
    rename_file(state.name(), path(state_));
    sync_directory_of(path(state_));  // the commit is durable before any file grows
    ++commit_;
    loaded_ = std::move(loaded);
    for (auto& out : outputs_) out->side_.close();
    outputs_.clear();
    // Committed: what follows is finished by the next run if this one stops here.
    finish(appends);
    unlock();
  }

  void abandon() {
    for (auto& out : outputs_) {
      out->side_.close();
      ::unlink(temp(out->name_, commit_ + 1).c_str());
    }
    outputs_.clear();
    unlock();
  }

  // Per generation number, the rows the committed files hold.
  std::map<int64_t, Origins> origins(OriginOf origin_of, size_t header_lines) const {
    std::map<int64_t, Origins> found;
    for (const std::string& name : names_) {
      if (name == state_ || !file_exists(path(name))) continue;
      const File file = File::read_only(path(name));
      std::string block(kFlushAt, '\0');
      std::string line;
      size_t skip = header_lines;
      for (long long at = 0, n;
           (n = static_cast<long long>(file.read_at(block.data(), block.size(), at))) > 0;
           at += n) {
        for (char c : std::string_view(block.data(), static_cast<size_t>(n))) {
          if (c != '\n') {
            line.push_back(c);
            continue;
          }
          int64_t generation, number;
          if (skip > 0) {
            --skip;
          } else if (origin_of(line, generation, number)) {
            Origins& o = found[generation];
            ++o.rows;
            o.line_sum += number;
            o.lines = o.rows;  // distinct lines are counted below
            seen_[generation].insert(number);
          }
          line.clear();
        }
      }
    }
    for (auto& [generation, o] : found) o.lines = static_cast<int64_t>(seen_[generation].size());
    seen_.clear();
    return found;
  }

 private:
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

  // Appends the committed side files to their files, each cut back first to its size before
  // the commit (a run stopped while appending left part of it), then removes them.
  void finish(const std::vector<std::pair<std::string, long long>>& appends) {
    bool changed = false;
    for (const auto& [name, before] : appends) {
      const std::string side = temp(name, commit_);
      if (!file_exists(side)) continue;  // appended already
      File to = File::append(path(name));
      if (to.size() != before) to.truncate(before);
      append_file(File::read_only(side), to);
      to.sync();
      remove_file(side);
      changed = true;
    }
    if (changed) sync_directory_of(path(state_));
  }

  void unlock() {
    if (lock_ >= 0) ::close(std::exchange(lock_, -1));
  }

  // Reads the state file; returns the appends of its commit.
  std::vector<std::pair<std::string, long long>> read_state() {
    commit_ = 0;
    loaded_.clear();
    const std::string name = path(state_);
    if (!file_exists(name)) return {};
    const std::string text = File::read_only(name).contents();
    if (text.starts_with(std::string(kOldStateTitle) + "\n")) {
      throw ExportError(name +
                        " was written by an older ekadcdf-export, whose rows tell no "
                        "origin: export into a new directory or file");
    }
    std::vector<std::pair<std::string, long long>> appends;
    size_t begin = 0;
    bool titled = false;
    try {
      for (size_t end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
        std::string_view line(text.data() + begin, end - begin);
        std::vector<std::string> f = get_fields(line);
        if (!titled) {
          if (line != kStateTitle) break;
          titled = true;
        } else if (line.starts_with("commit ")) {
          commit_ = std::stoll(std::string(line.substr(7)));
        } else if (line.starts_with("append ")) {
          const size_t space = line.find(' ', 7);
          appends.emplace_back(line.substr(space + 1),
                               std::stoll(std::string(line.substr(7, space - 7))));
        } else if (f.size() == 10 && f[0] == "loaded") {
          const bool header = f[9] != std::string(1, '\0');
          loaded_.push_back(Loaded{std::stoll(f[1]), f[2], std::stoll(f[3]), f[4], std::stoll(f[5]),
                                   std::stoll(f[6]), header, header ? f[9] : "", f[7],
                                   std::stoll(f[8])});
        } else {
          titled = false;
          break;
        }
      }
    } catch (const std::exception&) {
      titled = false;
    }
    if (!titled || begin != text.size()) {
      throw ExportError(name +
                        " is damaged; it records what was exported, so it cannot be "
                        "remade from the files");
    }
    return appends;
  }

  void remove_temps() {
    DIR* listing = ::opendir(dir_.c_str());
    if (listing == nullptr) fail("cannot read the directory " + dir_);
    std::vector<std::string> doomed;
    while (const dirent* entry = ::readdir(listing)) {
      std::string_view name = entry->d_name;
      if (owns(name)) doomed.emplace_back(name);
    }
    ::closedir(listing);
    for (const std::string& name : doomed) remove_file(path(name));
  }

  // Whether `file` is a side file of one of this set's files: temp(name, commit) of any commit.
  bool owns(std::string_view file) const {
    return std::any_of(names_.begin(), names_.end(), [&](const std::string& name) {
      const std::string prefix = hidden(name) + ".";
      if (!file.starts_with(prefix) || !file.ends_with(".tmp")) return false;
      std::string_view commit = file.substr(prefix.size(), file.size() - prefix.size() - 4);
      return !commit.empty() &&
             std::all_of(commit.begin(), commit.end(), [](char c) { return c >= '0' && c <= '9'; });
    });
  }

  std::string dir_;
  std::string state_;
  std::vector<std::string> names_;
  int lock_ = -1;
  int64_t commit_ = 0;
  int64_t next_id_ = 1;
  std::vector<Loaded> loaded_;
  std::vector<std::unique_ptr<Output>> outputs_;
  mutable std::map<int64_t, std::set<int64_t>> seen_;
};

// The last two numbers of a line ending in `end`, each after a `separator`.
bool trailing_numbers(std::string_view line, std::string_view separator, std::string_view end,
                      int64_t& generation, int64_t& number) {
  if (!line.ends_with(end)) return false;
  line.remove_suffix(end.size());
  const size_t last = line.rfind(separator);
  if (last == std::string_view::npos) return false;
  const size_t before = line.rfind(separator, last - 1);
  if (before == std::string_view::npos) return false;
  std::string_view first = line.substr(before + separator.size(), last - before - separator.size());
  if (first.ends_with(",\"line_number\"")) first.remove_suffix(14);
  return parse_integer(line.substr(last + separator.size()), number) &&
         parse_integer(first, generation);
}

// The text of value `i`: its bytes, or their mapping when they are not plain ASCII.
std::string_view text(const Row& row, size_t i, std::string& scratch) {
  return row.plain ? row.values[i] : utf8_text(row.values[i], scratch);
}

// Column 8 as an ISO 8601 time in UTC, or nothing.
bool event_time(const Row& row, char (&out)[20]) {
  int64_t seconds;
  return parse_integer(row.values[kCommonColumns - 1], seconds) && format_utc(seconds, 'T', out);
}

void append_csv(std::string& out, std::string_view value) {
  if (std::none_of(value.begin(), value.end(),
                   [](char c) { return c == ',' || c == '"' || c == '\r' || c == '\n'; })) {
    out.append(value);
    return;
  }
  out.push_back('"');
  for (char c : value) {
    if (c == '"') out.push_back('"');
    out.push_back(c);
  }
  out.push_back('"');
}

// RFC 4180: a header row of column names, then one line per record, ended by CR LF.
class CsvTarget final : public Target {
 public:
  explicit CsvTarget(const std::string& dir)
      : dir_(dir), files_(dir, ".ekadcdf-export-state", names()) {}

  std::vector<Loaded> begin(const std::vector<std::string>&) override {
    std::error_code error;
    std::filesystem::create_directories(dir_, error);
    if (error) throw ExportError("cannot create the directory " + dir_ + ": " + error.message());
    outputs_.fill(nullptr);
    return files_.begin();
  }

  void write(const Row& row) override {
    FileSet::Output*& out = outputs_[static_cast<size_t>(row.type->type)];
    if (out == nullptr) out = &files_.output(file_name(row.type->type), header(*row.type));
    std::string& line = out->buffer();
    for (size_t i = 0; i < row.values.size(); ++i) {
      append_csv(line, text(row, i, scratch_));
      line.push_back(',');
    }
    char time[20];
    if (event_time(row, time)) line.append(time).push_back('Z');
    line.push_back(',');
    if (row.host != nullptr) append_csv(line, *row.host);
    line.push_back(',');
    if (row.date != nullptr) line.append(*row.date);
    line.append(",").append(std::to_string(row.generation));
    line.append(",").append(std::to_string(row.line)).append("\r\n");
    out->done();
  }

  int64_t new_id() override { return files_.new_id(); }
  void commit(const LoadedChange& change) override { files_.commit(change); }
  void abandon() override { files_.abandon(); }
  std::map<int64_t, Origins> origins() override {
    return files_.origins(
        [](std::string_view line, int64_t& generation, int64_t& number) {
          return trailing_numbers(line, ",", "\r", generation, number);
        },
        1);
  }

 private:
  static std::string file_name(int type) { return table_name(type) + ".csv"; }
  static std::vector<std::string> names() {
    std::vector<std::string> all;
    for (const RecordType& type : record_catalogue()) all.push_back(file_name(type.type));
    return all;
  }
  static std::string header(const RecordType& type) {
    std::string line;
    for (const RecordColumn& column : type.columns) line.append(column.name).push_back(',');
    for (std::string_view extra : kExtraColumns) line.append(extra).push_back(',');
    line.back() = '\r';
    return line + "\n";
  }

  std::string dir_;
  FileSet files_;
  std::array<FileSet::Output*, kRecordTypeLimit> outputs_{};
  std::string scratch_;
};

// One JSON object per line: integers in their plain form as numbers, everything else as
// strings; no host or date gives null.
void append_json(std::string& out, const Row& row, std::string& scratch) {
  char separator = '{';
  for (size_t i = 0; i < row.values.size(); ++i) {
    const RecordColumn& column = row.type->columns[i];
    out.push_back(separator);
    separator = ',';
    out.push_back('"');
    out.append(column.name).append("\":");
    int64_t number;
    if (column.type == ValueType::kInteger && parse_integer(row.values[i], number)) {
      out.append(row.values[i]);
    } else {
      append_json_string(out, text(row, i, scratch));
    }
  }
  char time[20];
  out.append(",\"event_time\":");
  if (event_time(row, time)) {
    out.push_back('"');
    out.append(time).append("Z\"");
  } else {
    out.append("null");
  }
  for (auto [name, value] :
       {std::pair{",\"host\":", row.host}, {",\"generation_date\":", row.date}}) {
    out.append(name);
    if (value != nullptr) {
      append_json_string(out, *value);
    } else {
      out.append("null");
    }
  }
  out.append(",\"generation_id\":").append(std::to_string(row.generation));
  out.append(",\"line_number\":").append(std::to_string(row.line)).append("}\n");
}

class JsonlFile final : public Target {
 public:
  explicit JsonlFile(const std::string& file)
      : name_(std::filesystem::path(file).filename()),
        files_(directory_of(file), "." + name_ + ".ekadcdf-export-state", {name_}) {}

  std::vector<Loaded> begin(const std::vector<std::string>&) override {
    out_ = nullptr;
    return files_.begin();
  }
  int64_t new_id() override { return files_.new_id(); }
  std::map<int64_t, Origins> origins() override {
    return files_.origins(
        [](std::string_view line, int64_t& generation, int64_t& number) {
          const size_t at = line.rfind(",\"generation_id\":");
          return at != std::string_view::npos &&
                 trailing_numbers(line.substr(at), ":", "}", generation, number);
        },
        0);
  }
  void write(const Row& row) override {
    if (out_ == nullptr) out_ = &files_.output(name_, "");
    append_json(out_->buffer(), row, scratch_);
    out_->done();
  }
  void commit(const LoadedChange& change) override { files_.commit(change); }
  void abandon() override { files_.abandon(); }

 private:
  std::string name_;
  FileSet files_;
  FileSet::Output* out_ = nullptr;
  std::string scratch_;
};

// JSON Lines on standard output: nothing is remembered between runs of the program; with
// --follow, what was written is remembered while it runs.
class JsonlStream final : public Target {
 public:
  std::vector<Loaded> begin(const std::vector<std::string>&) override { return loaded_; }
  int64_t new_id() override { return ++ids_; }
  std::map<int64_t, Origins> origins() override {
    throw ExportError("standard output keeps nothing to verify");
  }
  void write(const Row& row) override {
    append_json(buffer_, row, scratch_);
    if (buffer_.size() >= kFlushAt) flush();
  }
  void commit(const LoadedChange& change) override {
    flush();
    for (const Loaded& l : change.entries) {
      std::erase_if(loaded_, [&](const Loaded& old) { return old.id == l.id; });
      loaded_.push_back(l);
    }
  }
  // What was flushed is out; the rest of the failed run is not written.
  void abandon() override { buffer_.clear(); }

 private:
  void flush() {
    if (std::fwrite(buffer_.data(), 1, buffer_.size(), stdout) != buffer_.size() ||
        std::fflush(stdout) != 0) {
      fail("cannot write to standard output");
    }
    buffer_.clear();
  }
  std::vector<Loaded> loaded_;
  int64_t ids_ = 0;
  std::string buffer_;
  std::string scratch_;
};

}  // namespace

std::unique_ptr<Target> csv_target(const std::string& directory) {
  return std::make_unique<CsvTarget>(directory);
}

std::unique_ptr<Target> jsonl_target(const std::string& file) {
  if (file == "-") return std::make_unique<JsonlStream>();
  return std::make_unique<JsonlFile>(file);
}

}  // namespace adcdf::exporter
