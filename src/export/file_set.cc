#include "export/file_set.h"

#include <dirent.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>

namespace adcdf::exporter {
namespace {

constexpr std::string_view kStateTitle = "ekadcdf-export state 2";
constexpr std::string_view kOldStateTitle = "ekadcdf-export state 1";

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

}  // namespace

std::vector<Loaded> FileSet::begin() {
  const std::string lock = path(state_ + ".lock");
  lock_ = File::read_write_create(lock);
  while (::flock(lock_.fd(), LOCK_EX) != 0) {
    if (errno != EINTR) raise_file_error(kReasonLocked, "cannot lock", lock, errno);
  }
  finish(read_state());
  remove_temps();
  next_id_ = 1;
  for (const Loaded& l : loaded_) next_id_ = std::max(next_id_, l.id + 1);
  return loaded_;
}

// The output of `name` for this run; a new file starts with `first`. Valid until the run ends.
FileSet::Output& FileSet::output(const std::string& name, std::string_view first) {
  for (auto& out : outputs_) {
    if (out->name == name) return *out;
  }
  Output& out = *outputs_.emplace_back(
      std::make_unique<Output>(Output{name, File::create(temp(name, commit_ + 1)), "", 0}));
  const std::optional<long long> size = committed_size(name);
  out.before = size.value_or(0);
  if (!size) out.buffer.assign(first);
  return out;
}

void FileSet::commit(const LoadedChange& change) {
  for (auto& out : outputs_) {
    out->flush();
    out->side.sync();
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
  Appends appends;
  for (auto& out : outputs_) {
    appends.emplace_back(out->name, out->before);
    text += "append " + std::to_string(out->before) + " " + out->name + "\n";
  }
  for (const Loaded& l : loaded) {
    text.append("loaded");
    for (const std::string& v : {std::to_string(l.id), l.source, std::to_string(l.key_bytes), l.key,
                                 std::to_string(l.bytes), std::to_string(l.lines), l.date,
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
  for (auto& out : outputs_) out->side.close();
  outputs_.clear();
  // Committed: what follows is finished by the next run if this one stops here.
  finish(appends);
  lock_.close();  // unlocks
}

void FileSet::abandon() {
  for (auto& out : outputs_) {
    out->side.close();
    ::unlink(temp(out->name, commit_ + 1).c_str());
  }
  outputs_.clear();
  lock_.close();  // unlocks
}

// Per generation number, the rows the committed files hold.
std::map<int64_t, Origins> FileSet::origins(OriginOf origin_of, size_t header_lines) const {
  std::map<int64_t, Origins> found;
  std::map<int64_t, std::set<int64_t>> seen;  // line numbers by generation
  for (const std::string& name : names_) {
    if (name == state_ || !file_exists(path(name))) continue;
    const File file = File::read_only(path(name));
    std::string block(kFlushAt, '\0');
    std::string line;
    size_t skip = header_lines;
    for (long long at = 0, n;
         (n = static_cast<long long>(file.read_at(block.data(), block.size(), at))) > 0; at += n) {
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
          seen[generation].insert(number);
        }
        line.clear();
      }
    }
  }
  for (auto& [generation, o] : found) o.lines = static_cast<int64_t>(seen[generation].size());
  return found;
}

// Appends the committed side files to their files, each cut back first to its size before
// the commit (a run stopped while appending left part of it), then removes them.
void FileSet::finish(const Appends& appends) {
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

// Reads the state file; returns the appends of its commit.
FileSet::Appends FileSet::read_state() {
  commit_ = 0;
  loaded_.clear();
  const std::string name = path(state_);
  if (!file_exists(name)) return {};
  const std::string text = File::read_only(name).contents();
  if (text.starts_with(std::string(kOldStateTitle) + "\n")) {
    raise_export_error(name +
                       " was written by an older ekadcdf-export, whose rows tell no "
                       "origin: export into a new directory or file");
  }
  Appends appends;
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
    raise_export_error(name +
                       " is damaged; it records what was exported, so it cannot be "
                       "remade from the files");
  }
  return appends;
}

void FileSet::remove_temps() {
  DIR* listing = ::opendir(dir_.c_str());
  if (listing == nullptr) raise_file_error(kReasonRead, "cannot read the directory", dir_, errno);
  std::vector<std::string> doomed;
  while (const dirent* entry = ::readdir(listing)) {
    std::string_view name = entry->d_name;
    if (owns(name)) doomed.emplace_back(name);
  }
  ::closedir(listing);
  for (const std::string& name : doomed) remove_file(path(name));
}

// Whether `file` is a side file of one of this set's files: temp(name, commit) of any commit.
bool FileSet::owns(std::string_view file) const {
  return std::any_of(names_.begin(), names_.end(), [&](const std::string& name) {
    const std::string prefix = hidden(name) + ".";
    if (!file.starts_with(prefix) || !file.ends_with(".tmp")) return false;
    std::string_view commit = file.substr(prefix.size(), file.size() - prefix.size() - 4);
    return !commit.empty() &&
           std::all_of(commit.begin(), commit.end(), [](char c) { return c >= '0' && c <= '9'; });
  });
}

}  // namespace adcdf::exporter
