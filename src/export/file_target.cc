// The CSV and JSON Lines targets: the formats of their lines. CSV and JSON Lines files are
// written through a FileSet (file_set.h), which commits them; standard output keeps nothing.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "export/file_set.h"
#include "export/values.h"

namespace adcdf::exporter {
namespace {

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
    if (error) raise_export_error("cannot create the directory " + dir_ + ": " + error.message());
    outputs_.fill(nullptr);
    return files_.begin();
  }

  void write(const Row& row) override {
    FileSet::Output*& out = outputs_[static_cast<size_t>(row.type->type)];
    if (out == nullptr) out = &files_.output(file_name(row.type->type), header(*row.type));
    std::string& line = out->buffer;
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
    std::string line = column_list(type, ",");
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
    append_json(out_->buffer, row, scratch_);
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
    raise_export_error("standard output keeps nothing to verify");
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
      raise_file_error(kReasonWrite, "cannot write to", "standard output", errno);
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
