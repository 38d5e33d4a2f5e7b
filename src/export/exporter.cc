#include "export/exporter.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "export/splitter.h"
#include "export/values.h"
#include "support/error.h"
#include "support/files.h"
#include "support/hash.h"

namespace adcdf::exporter {
namespace {

constexpr size_t kKeyBytes = 4096;  // the most bytes a generation's key covers
constexpr size_t kBlock = 1 << 20;  // bytes read at once
constexpr size_t kKeptGone = 1000;  // entries of generations no longer there that are kept

std::string error_text(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

struct GenerationFile {
  File file;
  int64_t size;
  std::string head;  // its first bytes, up to kKeyBytes
};

std::pair<std::string, std::string> split_base(const std::string& base) {
  return {directory_of(base), base.substr(base.rfind('/') + 1)};
}

// The generations of `base`, oldest first, opened at once: a rotation while they are opened
// moves names, not contents, so a file opened twice under two names is kept once.
std::vector<GenerationFile> scan(const std::string& base) {
  auto [dir, prefix] = split_base(base);
  prefix.push_back('.');
  DIR* listing = ::opendir(dir.c_str());
  if (listing == nullptr) throw ExportError(error_text("cannot read the directory " + dir));
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

  std::vector<GenerationFile> files;
  std::set<std::pair<dev_t, ino_t>> seen;
  for (auto& [number, name] : numbered) {
    std::string path = dir == "." && base.find('/') == std::string::npos ? name : dir + "/" + name;
    File file;
    try {
      file = File::read_only(path);
    } catch (const AdcdfError&) {
      if (!file_exists(path)) continue;  // rotated away since the listing
      throw;
    }
    struct stat st {};
    if (::fstat(file.fd(), &st) != 0) throw ExportError(error_text("cannot examine " + path));
    if (!S_ISREG(st.st_mode) || !seen.insert({st.st_dev, st.st_ino}).second) continue;
    std::string head(std::min<size_t>(kKeyBytes, static_cast<size_t>(st.st_size)), '\0');
    head.resize(file.read_at(head.data(), head.size(), 0));
    const int64_t size = std::max<int64_t>(st.st_size, static_cast<int64_t>(head.size()));
    files.push_back(GenerationFile{std::move(file), size, std::move(head)});
  }
  return files;
}

// The content key of a generation's first bytes: their hash in hexadecimal.
std::string key_of(std::string_view bytes) {
  uint64_t hash = fnv1a(bytes);
  char text[17];
  static constexpr char kHex[] = "0123456789abcdef";
  for (int i = 15; i >= 0; --i, hash >>= 4) text[i] = kHex[hash & 15];
  return std::string(text, 16);
}

std::string source_of(const std::string& base) {
  auto [dir, name] = split_base(base);
  char resolved[PATH_MAX];
  if (::realpath(dir.c_str(), resolved) == nullptr) {
    throw ExportError(error_text("cannot read the directory " + dir));
  }
  char host[256] = {};
  ::gethostname(host, sizeof host - 1);
  std::string path = resolved;
  if (path != "/") path.push_back('/');
  return std::string(host) + ":" + path + name;
}

// Reads one generation from where its entry ends, writing its rows into the target.
class Reader {
 public:
  // `rejects` collects the rejected lines when `keep_rejects`.
  Reader(Target& target, Totals& totals, std::string& rejects, bool keep_rejects,
         const std::function<void(const Totals&)>& progress, const volatile std::sig_atomic_t& stop)
      : target_(target),
        totals_(totals),
        rejects_(rejects),
        keep_rejects_(keep_rejects),
        progress_(progress),
        stop_(stop) {}

  void read(const GenerationFile& generation, Loaded& entry) {
    block_.resize(kBlock);
    size_t kept = 0;  // bytes of an incomplete line at the start of the block
    int64_t offset = entry.bytes;
    while (offset < generation.size) {
      if (kept == block_.size()) block_.resize(block_.size() * 2);
      size_t want =
          std::min<size_t>(block_.size() - kept, static_cast<size_t>(generation.size - offset));
      size_t got = generation.file.read_at(block_.data() + kept, want, offset);
      if (got == 0) break;  // cut short since it was looked at
      offset += static_cast<int64_t>(got);
      std::string_view data(block_.data(), kept + got);
      size_t begin = 0;
      for (size_t end; (end = data.find('\n', begin)) != std::string_view::npos; begin = end + 1) {
        ++entry.lines;
        line(data.substr(begin, end - begin), generation.file.name(), entry);
      }
      totals_.bytes += static_cast<int64_t>(begin);
      entry.bytes += static_cast<int64_t>(begin);
      kept = data.size() - begin;
      std::memmove(block_.data(), block_.data() + begin, kept);
      if (stop_) throw Interrupted{};
      progress_(totals_);
    }
  }

 private:
  void line(std::string_view text, const std::string& name, Loaded& entry) {
    const RecordType* type = splitter_.split(text, values_);
    if (type == nullptr) {
      ++totals_.rejected;
      if (!keep_rejects_) return;
      rejects_.append(name).push_back(':');
      rejects_.append(std::to_string(entry.lines)).push_back(':');
      rejects_.append(text).push_back('\n');
    } else if (type->type == kHeaderType) {
      header(entry);
    } else {
      target_.write(Row{type, values_, plain_ascii(text), entry.header ? &entry.host : nullptr,
                        entry.header && !entry.date.empty() ? &entry.date : nullptr});
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
  std::string& rejects_;
  bool keep_rejects_;
  const std::function<void(const Totals&)>& progress_;
  const volatile std::sig_atomic_t& stop_;
  Splitter splitter_;
  std::vector<std::string_view> values_;
  std::string scratch_;
  std::vector<char> block_;
};

}  // namespace

Exporter::Exporter(std::string base, std::string rejects, bool wait,
                   const volatile std::sig_atomic_t& stop)
    : base_(std::move(base)),
      source_(source_of(base_)),
      rejects_(std::move(rejects)),
      wait_(wait),
      stop_(stop) {
  if (!wait_ && scan(base_).empty()) {
    throw ExportError("no generations " + base_ + ".000, " + base_ + ".001, ... found");
  }
  if (!rejects_.empty()) File::append(rejects_);
}

Totals Exporter::run(Target& target, const std::function<void(const Totals&)>& progress) {
  std::vector<GenerationFile> files = scan(base_);
  if (files.empty() && !wait_) throw ExportError("the generations of " + base_ + " are gone");
  std::vector<Loaded> known = target.begin(source_);
  try {
    Totals totals;
    std::string rejected;
    Reader reader(target, totals, rejected, !rejects_.empty(), progress, stop_);
    std::vector<bool> used(known.size());
    LoadedChange change{source_, {}, {}};
    for (const GenerationFile& file : files) {
      Loaded entry;
      entry.source = source_;
      // The entry whose key matches over the most bytes: generations begun on the same day
      // start with the same header record, so a short key may match an older one too.
      std::map<int64_t, std::string> keys;  // the file's key over so many bytes
      size_t match = known.size();
      for (size_t i = 0; i < known.size(); ++i) {
        const Loaded& k = known[i];
        if (used[i] || k.key_bytes > static_cast<int64_t>(file.head.size())) continue;
        if (match < known.size() && k.key_bytes <= known[match].key_bytes) continue;
        auto [at, added] = keys.try_emplace(k.key_bytes);
        if (added) at->second = key_of(std::string_view(file.head).substr(0, k.key_bytes));
        if (at->second == k.key) match = i;
      }
      if (match < known.size()) {
        used[match] = true;
        if (known[match].source != source_) change.taken.push_back(known[match]);
        entry = known[match];
        entry.source = source_;
      }
      if (file.size < entry.bytes) {
        // Cut back by the daemon, restarted after a crash, to its last recorded position: it
        // writes the same records again, and they are loaded once it has got past this point.
        change.entries.push_back(std::move(entry));
        continue;
      }
      const int64_t before = entry.bytes;
      reader.read(file, entry);
      if (entry.bytes == 0) continue;  // no complete line yet
      if (entry.bytes > before) ++totals.generations;
      if (entry.first_loaded == 0) entry.first_loaded = std::time(nullptr);
      entry.key_bytes = std::min<int64_t>(entry.bytes, static_cast<int64_t>(file.head.size()));
      entry.key =
          key_of(std::string_view(file.head).substr(0, static_cast<size_t>(entry.key_bytes)));
      change.entries.push_back(std::move(entry));
    }
    if (totals.bytes == 0 && change.taken.empty()) {
      target.abandon();
      return totals;
    }
    // Entries of this base's generations that are gone stay, the most recent of them, so that
    // a generation missed while a rotation moved it is not loaded again.
    std::vector<Loaded> gone;
    for (size_t i = 0; i < known.size(); ++i) {
      if (!used[i] && known[i].source == source_) gone.push_back(known[i]);
    }
    std::sort(gone.begin(), gone.end(),
              [](const Loaded& a, const Loaded& b) { return a.first_loaded > b.first_loaded; });
    if (gone.size() > kKeptGone) gone.resize(kKeptGone);
    change.entries.insert(change.entries.end(), gone.begin(), gone.end());
    target.commit(change);
    if (!rejects_.empty() && !rejected.empty()) File::append(rejects_).write_all(rejected);
    return totals;
  } catch (...) {
    target.abandon();
    throw;
  }
}

}  // namespace adcdf::exporter
