// CSV files and JSON Lines.
//
// A run never writes into a committed file. It writes a copy of each file it adds to
// (".<name>.<commit>.tmp" beside it), then a new state file naming the commit and those files,
// and renames the state file into place: that rename commits the run. The copies are renamed
// over their files after it. A run that stops before the commit leaves its copies behind, and
// the next run removes them; one that stops after it leaves copies that the next run renames
// first. Readers see each file either as it was or complete.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <utility>

#include "export/target.h"
#include "export/values.h"
#include "support/files.h"

namespace adcdf::exporter {
namespace {

constexpr size_t kFlushAt = 1 << 20;
constexpr std::string_view kStateTitle = "ekadcdf-export state 1";

[[noreturn]] void fail(const std::string& what) {
  throw ExportError(what + ": " + std::strerror(errno));
}

void sync(const File& file) {
  if (::fsync(file.fd()) != 0) fail("cannot write " + file.name());
}

void sync_dir(const std::string& dir) {
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0 || ::fsync(fd) != 0) fail("cannot sync the directory " + dir);
  ::close(fd);
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

// Files in one directory that change together, with the state file that commits them.
class FileSet {
 public:
  // The copy of one file that a run appends to.
  class Output {
   public:
    Output(std::string name, File file) : name_(std::move(name)), file_(std::move(file)) {}
    std::string& buffer() { return buffer_; }
    // Hands a full buffer to the file.
    void done() {
      if (buffer_.size() >= kFlushAt) flush();
    }

   private:
    friend class FileSet;
    void flush() {
      file_.write_all(buffer_);
      buffer_.clear();
    }
    std::string name_;
    File file_;
    std::string buffer_;
  };

  // `names`: every file the set may write.
  FileSet(std::string dir, std::string state, std::vector<std::string> names)
      : dir_(std::move(dir)), state_(std::move(state)), names_(std::move(names)) {
    names_.push_back(state_);
  }
  ~FileSet() { abandon(); }

  std::vector<Loaded> begin() {
    const std::string lock = path(state_ + ".lock");
    lock_ = ::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lock_ < 0) fail("cannot open " + lock);
    while (::flock(lock_, LOCK_EX) != 0) {
      if (errno != EINTR) fail("cannot lock " + lock);
    }
    std::vector<std::string> committed = read_state();
    for (const std::string& name : committed) {
      if (file_exists(temp(name, commit_))) rename_file(temp(name, commit_), path(name));
    }
    remove_temps();
    return loaded_;
  }

  // The output of `name` for this run, a copy of the committed file made on first use; a new
  // file starts with `first`. Valid until the run ends.
  Output& output(const std::string& name, std::string_view first) {
    for (auto& out : outputs_) {
      if (out->name_ == name) return *out;
    }
    Output& out = *outputs_.emplace_back(
        std::make_unique<Output>(name, File::create(temp(name, commit_ + 1))));
    if (!file_exists(path(name))) {
      out.buffer_.assign(first);
      return out;
    }
    const File from = File::read_only(path(name));
    std::string block(kFlushAt, '\0');
    for (long long at = 0, n;
         (n = static_cast<long long>(from.read_at(block.data(), block.size(), at))) > 0; at += n) {
      out.file_.write_all(std::string_view(block.data(), static_cast<size_t>(n)));
    }
    return out;
  }

  void commit(const LoadedChange& change) {
    for (auto& out : outputs_) {
      out->flush();
      sync(out->file_);
    }
    std::vector<Loaded> loaded = change.entries;
    for (const Loaded& old : loaded_) {
      bool taken = false;
      for (const Loaded& t : change.taken) taken |= t.source == old.source && t.key == old.key;
      if (old.source != change.source && !taken) loaded.push_back(old);
    }
    std::string text = std::string(kStateTitle) + "\ncommit " + std::to_string(commit_ + 1) + "\n";
    for (auto& out : outputs_) text.append("file ").append(out->name_).push_back('\n');
    for (const Loaded& l : loaded) {
      text.append("loaded");
      for (const std::string& v :
           {l.source, std::to_string(l.key_bytes), l.key, std::to_string(l.bytes),
            std::to_string(l.lines), l.date, std::to_string(l.first_loaded)}) {
        put_field(text, &v);
      }
      put_field(text, l.header ? &l.host : nullptr);
      text.push_back('\n');
    }
    File state = File::create(temp(state_, commit_ + 1));
    state.write_all(text);
    sync(state);
    rename_file(state.name(), path(state_));
    ++commit_;
    loaded_ = std::move(loaded);
    // Committed: what follows is finished by the next run if this one stops here.
    for (auto& out : outputs_) {
      out->file_.close();
      rename_file(temp(out->name_, commit_), path(out->name_));
    }
    outputs_.clear();
    sync_dir(dir_);
    unlock();
  }

  void abandon() {
    for (auto& out : outputs_) {
      out->file_.close();
      ::unlink(temp(out->name_, commit_ + 1).c_str());
    }
    outputs_.clear();
    unlock();
  }

 private:
  static std::string hidden(const std::string& name) {
    return name.starts_with('.') ? name : "." + name;
  }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }
  std::string temp(const std::string& name, int64_t commit) const {
    return path(hidden(name) + "." + std::to_string(commit) + ".tmp");
  }

  void unlock() {
    if (lock_ >= 0) ::close(std::exchange(lock_, -1));
  }

  // Reads the state file; returns the files its commit replaced.
  std::vector<std::string> read_state() {
    commit_ = 0;
    loaded_.clear();
    const std::string name = path(state_);
    if (!file_exists(name)) return {};
    const std::string text = File::read_only(name).contents();
    std::vector<std::string> files;
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
        } else if (line.starts_with("file ")) {
          files.emplace_back(line.substr(5));
        } else if (f.size() == 9 && f[0] == "loaded") {
          const bool header = f[8] != std::string(1, '\0');
          loaded_.push_back(Loaded{f[1], std::stoll(f[2]), f[3], std::stoll(f[4]), std::stoll(f[5]),
                                   header, header ? f[8] : "", f[6], std::stoll(f[7])});
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
    return files;
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

  // Whether `file` is a copy of one of this set's files: temp(name, commit) of any commit.
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
  std::vector<Loaded> loaded_;
  std::vector<std::unique_ptr<Output>> outputs_;
};

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

  std::vector<Loaded> begin(const std::string&) override {
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
    line.append("\r\n");
    out->done();
  }

  void commit(const LoadedChange& change) override { files_.commit(change); }
  void abandon() override { files_.abandon(); }

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
  out.append("}\n");
}

class JsonlFile final : public Target {
 public:
  explicit JsonlFile(const std::string& file)
      : name_(std::filesystem::path(file).filename()),
        files_(directory_of(file), "." + name_ + ".ekadcdf-export-state", {name_}) {}

  std::vector<Loaded> begin(const std::string&) override {
    out_ = nullptr;
    return files_.begin();
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
  std::vector<Loaded> begin(const std::string&) override { return loaded_; }
  void write(const Row& row) override {
    append_json(buffer_, row, scratch_);
    if (buffer_.size() >= kFlushAt) flush();
  }
  void commit(const LoadedChange& change) override {
    flush();
    loaded_ = change.entries;
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
  std::string buffer_;
  std::string scratch_;
};

}  // namespace

std::string table_name(int type) {
  return "cdf_" + std::to_string(type);
}

std::string event_time_indexes() {
  std::string sql;
  for (const RecordType& type : record_catalogue()) {
    if (type.type == kHeaderType) continue;
    const std::string table = table_name(type.type);
    sql += "CREATE INDEX IF NOT EXISTS " + table + "_event_time ON " + table + " (event_time);\n";
  }
  return sql;
}

std::unique_ptr<Target> csv_target(const std::string& directory) {
  return std::make_unique<CsvTarget>(directory);
}

std::unique_ptr<Target> jsonl_target(const std::string& file) {
  if (file == "-") return std::make_unique<JsonlStream>();
  return std::make_unique<JsonlFile>(file);
}

}  // namespace adcdf::exporter
