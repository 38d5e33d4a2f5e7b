#include "export/exporter.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "export/splitter.h"
#include "export/values.h"
#include "support/error.h"
#include "support/hash.h"

namespace adcdf::exporter {
namespace {

constexpr size_t kBlock = 1 << 20;      // bytes read at once; no record is this long
constexpr size_t kRejectsAt = 1 << 16;  // bytes of rejected lines gathered before a write
constexpr size_t kKeptGone = 1000;      // entries of generations no longer there that are kept

struct GenerationFile {
  File file;
  int64_t size;
  std::string head;  // its first bytes, up to kFingerprintBytes
};

std::pair<std::string, std::string> split_base(const std::string& base) {
  return {directory_of(base), base.substr(base.rfind('/') + 1)};
}

// The names of the generations of `base`, oldest first.
std::vector<std::string> generation_names(const std::string& base) {
  auto [dir, prefix] = split_base(base);
  prefix.push_back('.');
  DIR* listing = ::opendir(dir.c_str());
  if (listing == nullptr) raise_file_error(kReasonRead, "cannot read the directory", dir, errno);
  std::vector<std::pair<long, std::string>> numbered;
  while (const dirent* entry = ::readdir(listing)) {
    std::string_view name = entry->d_name;
    if (!name.starts_with(prefix)) continue;
    std::string_view suffix = name.substr(prefix.size());
    if (suffix.size() < 3 || suffix.size() > 6 ||
        !std::all_of(suffix.begin(), suffix.end(), [](char c) { return c >= '0' && c <= '9'; })) {
      continue;
    }
    numbered.emplace_back(std::stol(std::string(suffix)), std::string(name));
  }
  ::closedir(listing);
  std::sort(numbered.begin(), numbered.end(), std::greater<>());
  std::vector<std::string> names;
  const bool bare = dir == "." && base.find('/') == std::string::npos;
  for (auto& [number, name] : numbered) names.push_back(bare ? name : dir + "/" + name);
  return names;
}

// Opens a generation as the file layer opens every file (no link followed, without blocking,
// a regular file only: anything else is no generation the daemon wrote, and stops the run);
// nothing when it was rotated away since the listing.
std::optional<File> open_generation(const std::string& path) {
  try {
    return File::read_only(path);
  } catch (const AdcdfError& error) {
    if (error.reason() == kReasonOpen && !file_exists(path)) return std::nullopt;
    throw;
  }
}

// The generations of `base`, oldest first, opened at once: a rotation while they are opened
// moves names, not contents, so a file opened twice under two names is kept once.
std::vector<GenerationFile> scan(const std::string& base) {
  std::vector<GenerationFile> files;
  std::vector<FileId> seen;
  for (const std::string& path : generation_names(base)) {
    std::optional<File> file = open_generation(path);
    if (!file || std::find(seen.begin(), seen.end(), file->id()) != seen.end()) continue;
    seen.push_back(file->id());
    const int64_t size = file->size();
    std::string head(std::min<size_t>(kFingerprintBytes, static_cast<size_t>(size)), '\0');
    head.resize(file->read_at(head.data(), head.size(), 0));
    files.push_back(GenerationFile{std::move(*file), std::max<int64_t>(size, std::ssize(head)),
                                   std::move(head)});
  }
  return files;
}

// The content key of a generation's first bytes (at most kFingerprintBytes): the hash of their
// fingerprint, in hexadecimal.
std::string key_of(std::string_view bytes) {
  char text[17];
  std::snprintf(text, sizeof text, "%016" PRIx64, fingerprint_of(bytes).hash);
  return text;
}

// What runs on the same generations lock, whatever path they reach them by: the keys of their
// first lines (the header record, which names the mail server and the day).
std::vector<std::string> lock_keys(const std::vector<GenerationFile>& files) {
  std::set<std::string> keys;
  for (const GenerationFile& file : files) {
    const size_t end = file.head.find('\n');
    if (end != std::string::npos) keys.insert(key_of(std::string_view(file.head).substr(0, end)));
  }
  return {keys.begin(), keys.end()};
}

std::string source_of(const std::string& base) {
  auto [dir, name] = split_base(base);
  char resolved[PATH_MAX];
  if (::realpath(dir.c_str(), resolved) == nullptr) {
    raise_file_error(kReasonRead, "cannot read the directory", dir, errno);
  }
  char host[256] = {};
  ::gethostname(host, sizeof host - 1);
  std::string path = resolved;
  if (path != "/") path.push_back('/');
  return std::string(host) + ":" + path + name;
}

// The known entry of a generation: the one whose key matches over the most bytes, since
// generations begun on the same day start with the same header record and a short key may
// match an older one too. Returns known.size() when none does.
size_t match(const GenerationFile& file, const std::vector<Loaded>& known,
             const std::vector<bool>& used) {
  std::map<int64_t, std::string> keys;  // the file's key over so many bytes
  size_t found = known.size();
  for (size_t i = 0; i < known.size(); ++i) {
    const Loaded& k = known[i];
    if (used[i] || k.key_bytes > static_cast<int64_t>(file.head.size())) continue;
    if (found < known.size() && k.key_bytes <= known[found].key_bytes) continue;
    auto [at, added] = keys.try_emplace(k.key_bytes);
    if (added) at->second = key_of(std::string_view(file.head).substr(0, k.key_bytes));
    if (at->second == k.key) found = i;
  }
  return found;
}

// Entries of this base's generations that are gone stay, the most recent of them, so that a
// generation missed while a rotation moved it is not loaded again; the rest are forgotten.
// This base's: last loaded from its path, or of a mail server whose generations it holds.
std::vector<int64_t> forgotten(const std::vector<Loaded>& known, const std::vector<bool>& used,
                               const std::string& source) {
  std::set<std::string> hosts;
  for (size_t i = 0; i < known.size(); ++i) {
    if (used[i] && known[i].header) hosts.insert(known[i].host);
  }
  std::vector<const Loaded*> gone;
  for (size_t i = 0; i < known.size(); ++i) {
    const Loaded& k = known[i];
    if (!used[i] && (k.source == source || (k.header && hosts.count(k.host) > 0))) {
      gone.push_back(&k);
    }
  }
  std::vector<int64_t> ids;
  if (gone.size() <= kKeptGone) return ids;
  std::sort(gone.begin(), gone.end(),
            [](const Loaded* a, const Loaded* b) { return a->first_loaded > b->first_loaded; });
  for (size_t i = kKeptGone; i < gone.size(); ++i) ids.push_back(gone[i]->id);
  return ids;
}

// Rejected lines on their way to the rejects file, in pieces of bounded size.
class Rejects {
 public:
  Rejects(Appender* file) : file_(file) {}
  // Where the file would end now.
  long long mark() const {
    return file_ ? file_->size() + static_cast<long long>(buffer_.size()) : 0;
  }
  void add(std::string_view bytes) {
    if (file_ == nullptr) return;
    buffer_.append(bytes);
    if (buffer_.size() >= kRejectsAt) flush();
  }
  void flush() {
    if (file_ != nullptr && !buffer_.empty()) file_->append(buffer_);
    buffer_.clear();
  }
  // Drops what was added after `mark`.
  void cut(long long mark) {
    if (file_ == nullptr) return;
    if (mark >= file_->size()) {
      buffer_.resize(static_cast<size_t>(mark - file_->size()));
    } else {
      buffer_.clear();
      file_->cut(mark);
    }
  }
  void sync() {
    flush();
    if (file_ != nullptr) file_->sync();
  }

 private:
  Appender* file_;
  std::string buffer_;
};

// Reads one generation from where its entry ends, writing its rows into the target.
class Reader {
 public:
  Reader(Target& target, Totals& totals, Rejects& rejects,
         const std::function<void(const Totals&)>& progress, const volatile std::sig_atomic_t& stop)
      : target_(target), totals_(totals), rejects_(rejects), progress_(progress), stop_(stop) {
    block_.resize(kBlock);
  }

  // Reads up to byte `end` of the generation.
  void read(const GenerationFile& generation, Loaded& entry, int64_t end) {
    name_ = &generation.file.name();
    size_t kept = 0;     // bytes of an incomplete line at the start of the block
    int64_t passed = 0;  // bytes of a line longer than a block, passed on to the rejects
    long long mark = 0;  // where the rejects ended before that line
    int64_t offset = entry.bytes;
    while (offset < end) {
      size_t want = std::min<size_t>(block_.size() - kept, static_cast<size_t>(end - offset));
      size_t got = generation.file.read_at(block_.data() + kept, want, offset);
      if (got == 0) break;  // cut short since it was looked at
      offset += static_cast<int64_t>(got);
      std::string_view data(block_.data(), kept + got);
      size_t begin = 0;
      if (passed > 0) {
        const size_t line_end = data.find('\n');
        rejects_.add(
            data.substr(0, line_end == std::string_view::npos ? data.size() : line_end + 1));
        if (line_end == std::string_view::npos) {
          passed += static_cast<int64_t>(data.size());
          kept = 0;
          continue;
        }
        begin = line_end + 1;
        finish_line(entry, passed + static_cast<int64_t>(begin));
        ++totals_.rejected;
        passed = 0;
      }
      for (size_t line_end; (line_end = data.find('\n', begin)) != std::string_view::npos;
           begin = line_end + 1) {
        line(data.substr(begin, line_end - begin), entry);
        finish_line(entry, static_cast<int64_t>(line_end + 1 - begin));
      }
      kept = data.size() - begin;
      std::memmove(block_.data(), block_.data() + begin, kept);
      if (kept == block_.size()) {
        // No line feed in a whole block: a line no layout allows, passed on as it comes.
        mark = rejects_.mark();
        reject_prefix(entry.lines + 1);
        rejects_.add(std::string_view(block_.data(), kept));
        passed = static_cast<int64_t>(kept);
        kept = 0;
      }
      if (stop_) raise_export_error("interrupted", kReasonInterrupted);
      progress_(totals_);
    }
    if (passed > 0) rejects_.cut(mark);  // the file ends inside it: read again next time
  }

 private:
  void finish_line(Loaded& entry, int64_t bytes) {
    ++entry.lines;
    entry.bytes += bytes;
    totals_.bytes += bytes;
  }

  void reject_prefix(int64_t line) { rejects_.add(*name_ + ":" + std::to_string(line) + ":"); }

  void line(std::string_view text, Loaded& entry) {
    const RecordType* type = splitter_.split(text, values_);
    if (type == nullptr) {
      ++totals_.rejected;
      reject_prefix(entry.lines + 1);
      rejects_.add(text);
      rejects_.add("\n");
    } else if (type->type == kHeaderType) {
      header(entry);
    } else {
      target_.write(Row{type, values_, plain_ascii(text), entry.header ? &entry.host : nullptr,
                        entry.header && !entry.date.empty() ? &entry.date : nullptr, entry.id,
                        entry.lines + 1});
      ++totals_.records;
    }
  }

  // A header record: its host and date go into the records after it.
  void header(Loaded& entry) {
    entry.header = true;
    entry.host = utf8_text(values_[8], scratch_);
    int64_t year, month, day;
    char date[11];
    bool valid = parse_integer(values_[1], year) && parse_integer(values_[2], month) &&
                 parse_integer(values_[3], day) && year < INT32_MAX &&
                 format_date(year + 1900, month, day, date);
    entry.date = valid ? date : "";
  }

  Target& target_;
  Totals& totals_;
  Rejects& rejects_;
  const std::function<void(const Totals&)>& progress_;
  const volatile std::sig_atomic_t& stop_;
  const std::string* name_ = nullptr;
  Splitter splitter_;
  std::vector<std::string_view> values_;
  std::string scratch_;
  std::vector<char> block_;
};

// A target that only counts, for verify(): the rows a load would write.
class Counter final : public Target {
 public:
  std::vector<Loaded> begin(const std::vector<std::string>&) override { return {}; }
  int64_t new_id() override { return 0; }
  void write(const Row& row) override {
    ++counted.rows;
    ++counted.lines;
    counted.line_sum += row.line;
  }
  void commit(const LoadedChange&) override {}
  void abandon() override {}
  std::map<int64_t, Origins> origins() override { return {}; }
  Origins counted;
};

// Reads what is new in a generation, from where its known entry ends; returns its entry when
// it had new lines.
std::optional<Loaded> read_new_lines(const GenerationFile& file, const std::vector<Loaded>& known,
                                     std::vector<bool>& used, Target& target, Reader& reader) {
  Loaded entry;
  if (size_t found = match(file, known, used); found < known.size()) {
    used[found] = true;
    entry = known[found];
  }
  // Cut back by the daemon, restarted after a crash, to its last recorded position: it writes
  // the same records again, and they are loaded once it has got past this point.
  if (file.size <= entry.bytes) return std::nullopt;
  if (entry.id == 0) {
    if (file.head.find('\n') == std::string::npos) return std::nullopt;  // no line yet
    entry.id = target.new_id();
  }
  const int64_t before = entry.bytes;
  reader.read(file, entry, file.size);
  if (entry.bytes == before) return std::nullopt;  // no complete line yet
  if (entry.first_loaded == 0) entry.first_loaded = std::time(nullptr);
  entry.key_bytes = std::min<int64_t>(entry.bytes, static_cast<int64_t>(file.head.size()));
  entry.key = key_of(std::string_view(file.head).substr(0, static_cast<size_t>(entry.key_bytes)));
  return entry;
}

// Reads what is new in every generation into the target; returns the change of what the target
// has loaded that commits it.
LoadedChange read_new(const std::vector<GenerationFile>& files, const std::vector<Loaded>& known,
                      const std::string& source, Target& target, Reader& reader, Totals& totals) {
  std::vector<bool> used(known.size());
  LoadedChange change;
  for (const GenerationFile& file : files) {
    if (std::optional<Loaded> entry = read_new_lines(file, known, used, target, reader)) {
      entry->source = source;
      change.entries.push_back(std::move(*entry));
      ++totals.generations;
    }
  }
  change.forgotten = forgotten(known, used, source);
  return change;
}

}  // namespace

Exporter::Exporter(std::string base, const std::string& rejects, bool wait,
                   const volatile std::sig_atomic_t& stop)
    : base_(std::move(base)),
      source_(source_of(base_)),
      keep_rejects_(!rejects.empty()),
      wait_(wait),
      stop_(stop) {
  if (!wait_ && generation_names(base_).empty()) {
    raise_export_error("no generations " + base_ + ".000, " + base_ + ".001, ... found");
  }
  // The file layer refuses anything but a regular file of one name.
  if (keep_rejects_) rejects_ = Appender(File::append(rejects));
}

Totals Exporter::run(Target& target, const std::function<void(const Totals&)>& progress) {
  Totals totals;
  const std::vector<GenerationFile> files = scan(base_);
  if (files.empty()) {
    if (!wait_) raise_export_error("the generations of " + base_ + " are gone");
    totals.no_generation = true;
    return totals;
  }
  Rejects rejects(keep_rejects_ ? &rejects_ : nullptr);
  const long long rejects_start = rejects.mark();
  const std::vector<Loaded> known = target.begin(lock_keys(files));
  bool committing = false;
  try {
    Reader reader(target, totals, rejects, progress, stop_);
    const LoadedChange change = read_new(files, known, source_, target, reader, totals);
    if (totals.bytes == 0) {
      target.abandon();
      return totals;
    }
    rejects.sync();  // the rejected lines are kept before the run that leaves them behind
    committing = true;
    target.commit(change);
    return totals;
  } catch (...) {
    target.abandon();
    // A failed commit may have reached the target: its rejected lines stay.
    if (!committing) rejects.cut(rejects_start);
    throw;
  }
}

std::vector<Verified> Exporter::verify(Target& target) {
  std::vector<GenerationFile> files = scan(base_);
  std::vector<Loaded> known = target.begin(lock_keys(files));
  std::map<int64_t, Origins> found;
  try {
    found = target.origins();
  } catch (...) {
    target.abandon();
    throw;
  }
  target.abandon();
  std::vector<Verified> report;
  std::vector<bool> used(known.size());
  for (const GenerationFile& file : files) {
    Verified v;
    v.name = file.file.name();
    Loaded entry;
    if (size_t at = match(file, known, used); at < known.size()) {
      used[at] = true;
      v.id = known[at].id;
      entry.id = v.id;
      Counter counter;
      Totals totals;
      Rejects none(nullptr);
      Reader(
          counter, totals, none, [](const Totals&) {}, stop_)
          .read(file, entry, known[at].bytes);
      v.records = totals.records;
      v.rejected = totals.rejected;
      v.expected = counter.counted;
      v.found = found[v.id];
    }
    report.push_back(std::move(v));
  }
  return report;
}

}  // namespace adcdf::exporter
