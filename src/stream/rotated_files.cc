#include "stream/rotated_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <tuple>
#include <vector>

namespace adcdf {
namespace {

constexpr std::string_view kGzip = ".gz";

bool older(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

std::string head_of(ByteSource& source) {
  std::string head(kFingerprintBytes, '\0');
  head.resize(source.read_head(head.data(), head.size()));
  return head;
}

// Whether two files hold the same data as far as both go: a file being compressed holds the
// beginning of its original. An empty file is no copy of anything.
bool same_content(std::string_view a, std::string_view b) {
  const size_t n = std::min(a.size(), b.size());
  return n > 0 && a.substr(0, n) == b.substr(0, n);
}

// A rotated file as found in the directory.
struct Candidate {
  std::string path;
  std::unique_ptr<ByteSource> source;  // null when it cannot be read
  std::string head;
  FileId id;
  timespec modified{};
  long long stored = 0;  // its size on the disk (compressed for a .gz file)
  bool gzip = false;
};

// Every rotated file of `name` in its directory, oldest first, an uncompressed file before the
// compressed one of the same time.
std::vector<Candidate> rotated_files(const std::string& name) {
  const std::string dir = directory_of(name);
  const size_t slash = name.rfind('/');
  const std::string base = slash == std::string::npos ? name : name.substr(slash + 1);
  const std::string prefix = slash == std::string::npos ? "" : name.substr(0, slash + 1);
  std::vector<Candidate> found;
  DIR* listing = ::opendir(dir.c_str());
  if (listing == nullptr) return found;
  while (const struct dirent* entry = ::readdir(listing)) {
    if (!is_rotated_name(base, entry->d_name)) continue;
    struct stat st {};
    if (::fstatat(::dirfd(listing), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(st.st_mode)) {
      continue;
    }
    Candidate c;
    c.path = prefix + entry->d_name;
    c.id = FileId{static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino)};
    c.modified = st.st_mtim;
    c.stored = st.st_size;
    c.gzip = c.path.ends_with(kGzip);
    std::string why;
    if (std::optional<File> file = File::regular_for_reading(c.path, false, why)) {
      if (file->id() == c.id) {
        if (c.gzip) {
          c.source = GzipSource::open(std::move(*file), c.path);
        } else {
          c.source = std::make_unique<FileSource>(std::move(*file), c.path);
        }
      }
    }
    if (c.source) c.head = head_of(*c.source);
    found.push_back(std::move(c));
  }
  ::closedir(listing);
  std::sort(found.begin(), found.end(), [](const Candidate& a, const Candidate& b) {
    return std::tie(a.modified.tv_sec, a.modified.tv_nsec, a.gzip) <
           std::tie(b.modified.tv_sec, b.modified.tv_nsec, b.gzip);
  });
  return found;
}

// The rotated files written after `after` (its modification time or later), in that order, each
// once: not `after` itself, nor a file holding what `after` or `skip` holds, nor a second copy of
// one (a file and its compressed copy while logrotate compresses it). One that cannot be read is
// reported as lost.
void append_newer(std::vector<Candidate>& files, const Candidate& after, std::string_view skip,
                  ReadPlan& plan) {
  std::vector<std::string_view> taken = {after.head, skip};
  for (Candidate& c : files) {
    if (c.id == after.id || older(c.modified, after.modified)) continue;
    if (!c.source) {
      // A compressed file still being written beside its original (logrotate's compress at
      // work) holds nothing the original does not.
      const std::string original = c.path.substr(0, c.path.size() - kGzip.size());
      const bool compressing = c.gzip && std::any_of(files.begin(), files.end(),
                                                     [&](auto& o) { return o.path == original; });
      if (!compressing) plan.push_back({NextRead::kLost, nullptr, 0, c.gzip ? -1 : c.stored, {}});
      continue;
    }
    if (std::any_of(taken.begin(), taken.end(),
                    [&](std::string_view t) { return same_content(t, c.head); })) {
      continue;
    }
    taken.push_back(c.head);
    plan.push_back({NextRead::kRotated, std::move(c.source), 0, -1, {}});
  }
}

// The rotated file that begins with the first `offset` bytes of `head`: the copy of a file read
// that far.
std::vector<Candidate>::iterator find_copy(std::vector<Candidate>& files, long long offset,
                                           std::string_view head) {
  const size_t n = static_cast<size_t>(std::min<long long>(offset, kFingerprintBytes));
  return std::find_if(files.begin(), files.end(), [&](const Candidate& c) {
    return c.source && c.head.size() >= std::min(n, head.size()) &&
           std::string_view(c.head).substr(0, n) == head.substr(0, n);
  });
}

}  // namespace

bool is_rotated_name(std::string_view audit, std::string_view entry) {
  if (audit.empty() || !entry.starts_with(audit)) return false;
  std::string_view rest = entry.substr(audit.size());
  if (rest.ends_with(kGzip)) rest.remove_suffix(kGzip.size());
  if (rest.size() < 2 || (rest[0] != '.' && rest[0] != '-') || rest[1] < '0' || rest[1] > '9') {
    return false;
  }
  return rest.find_first_not_of("0123456789.-") == std::string_view::npos;
}

ReadPlan AuditFiles::truncated_again(ByteSource& held, std::string_view head) {
  ReadPlan plan;
  if (head.empty() || !held.regular()) return plan;
  std::string now = head_of(held);
  if (std::string_view(now).starts_with(head)) return plan;
  std::vector<Candidate> files = rotated_files(name_);
  auto copy = find_copy(files, static_cast<long long>(head.size()), head);
  if (copy == files.end()) {
    plan.push_back({NextRead::kLost, nullptr, 0, -1, {}});
  } else {
    Candidate found = std::move(*copy);
    files.erase(copy);
    plan.push_back({NextRead::kRotated, std::move(found.source), 0, -1, {}});
    append_newer(files, found, now, plan);
  }
  plan.push_back({NextRead::kSameFile, nullptr, 0, -1, now});
  return plan;
}

Look AuditFiles::look(ByteSource& held, long long offset, std::string_view head) {
  Look result;
  if (!held.regular()) return result;
  std::string now = head_of(held);
  const size_t n = static_cast<size_t>(std::min<long long>(offset, kFingerprintBytes));
  if (held.size() < offset || held.rewritten() ||
      std::string_view(now).substr(0, n) != head.substr(0, n)) {
    // Copied and truncated (logrotate's copytruncate): the copy holds what was not read yet.
    result.truncated = true;
    std::vector<Candidate> files = rotated_files(name_);
    auto copy = find_copy(files, offset, head);
    if (copy == files.end()) {
      result.plan.push_back({NextRead::kLost, nullptr, 0, -1, {}});
    } else {
      Candidate found = std::move(*copy);
      files.erase(copy);
      // A copy shorter than what was read ends where the daemon already is: nothing is lost.
      if (found.source->size() > offset) result.copy = std::move(found.source);
      append_newer(files, found, now, result.plan);
    }
    result.plan.push_back({NextRead::kSameFile, nullptr, 0, -1, now});
    return result;
  }

  struct stat st {};
  if (::stat(name_.c_str(), &st) != 0) {
    // No file at the name for now, between a rename and the new file: nothing to say.
    if (errno != ENOENT) result.unreadable = std::strerror(errno);
  } else if (FileId{static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino)} !=
             held.id()) {
    std::string why;
    std::optional<File> file = File::regular_for_reading(name_, true, why);
    if (!file) {
      result.unreadable = why;
    } else if (file->size() > 0) {
      // Renamed away, and the mail server writes to the new file: it no longer writes to the
      // old one, which is read to its end, then whatever was rotated after it, then the new one.
      Candidate after{name_, nullptr, now, held.id(), held.modified(), 0, false};
      std::vector<Candidate> files = rotated_files(name_);
      const FileId at_name = file->id();
      std::erase_if(files, [&](const Candidate& c) { return c.id == at_name; });
      append_newer(files, after, {}, result.plan);
      result.plan.push_back(
          {NextRead::kAtName, std::make_unique<FileSource>(std::move(*file), name_), 0, -1, {}});
    }
    // A new file still empty: the mail server may still write to the old one.
  }
  // One report for a stretch of looks that find the name unreadable.
  const bool trouble = result.unreadable.has_value();
  if (trouble && unreadable_) result.unreadable.reset();
  unreadable_ = trouble;
  return result;
}

std::optional<Resume> AuditFiles::resume(ByteSource& at_name, long long offset,
                                         const Fingerprint& head, const FileId& id) {
  auto holds_position = [&](std::string_view first, ByteSource& source) {
    return first.size() >= head.length && fingerprint_of(first.substr(0, head.length)) == head &&
           source.size() >= offset;
  };
  const bool name_matches = holds_position(head_of(at_name), at_name);
  if (name_matches && at_name.id() == id) return Resume{};

  // Renamed away (found by its identity first), else any file that holds the position.
  std::vector<Candidate> files = rotated_files(name_);
  auto found = std::find_if(files.begin(), files.end(), [&](Candidate& c) {
    return c.id == id && c.source && holds_position(c.head, *c.source);
  });
  if (found == files.end()) {
    if (name_matches) return Resume{};
    found = std::find_if(files.begin(), files.end(), [&](Candidate& c) {
      return c.source && holds_position(c.head, *c.source);
    });
  }
  if (found != files.end()) return Resume{std::move(found->source), false};
  // The same file with other first bytes, and no copy of it: truncated while the daemon was
  // down, and what it held beyond the position is gone.
  if (at_name.id() == id) return Resume{nullptr, true};
  return std::nullopt;
}

}  // namespace adcdf
