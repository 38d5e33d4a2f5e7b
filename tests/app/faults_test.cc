// Failures of the file operations and power cuts: after either, a restart must leave the files as
// one uninterrupted run leaves them.
#include "support/faults.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <set>

#include "app/process_loop.h"
#include "support/error.h"
#include "support/files.h"
#include "test_support.h"

namespace adcdf {
namespace {

using testing::Harness;
using testing::TempDir;

// What survives the cut.
enum class Loss {
  kNothing,         // an operation failed and the daemon stopped: everything written stays
  kUnsyncedData,    // ext4 ordered: the names as made, each file as last synced (else empty)
  kUncoveredNames,  // only fsync counts: the names too as at the last sync of the directory
  kEarlierNames,    // the same, but the newest name change since that sync survived
};

// The fault seam in power-loss mode, after LevelDB's fault-injection environment, installed while
// it lives: the `nth` file operation fails, after writing `partial` bytes, and with `power_cut`
// every later one too. It remembers what each file held at its last sync, the names the directory
// held at its last sync and the name changes since, so that crash() can leave the directory as
// the cut would; after that it lets all pass.
struct PowerCut : FaultInjector {
  PowerCut(const TempDir& d, int n, size_t p, bool cut)
      : dir(d), nth(n), partial(p), power_cut(cut), durable(names()) {
    for (const auto& [name, ino] : durable) synced[ino] = dir.read(name);
    set_fault_injector(this);
  }
  ~PowerCut() override { set_fault_injector(nullptr); }

  int fail(const FileEvent& e, size_t* written) override {
    std::lock_guard lock(mutex);
    if (off || crashed) return crashed ? 0 : EIO;
    if (++seen == nth) {
      hit = true;
      off = power_cut;
      if (written != nullptr && partial != SIZE_MAX) *written = partial;
      return EIO;
    }
    struct stat st {};
    if (e.op == FileOp::kSync && ::fstat(e.fd, &st) == 0 && S_ISREG(st.st_mode)) {
      // Through /proc: the descriptor may be open for writing only.
      synced[st.st_ino] = testing::read_file("/proc/self/fd/" + std::to_string(e.fd));
    } else if (e.op == FileOp::kSyncDirectory && e.name == dir.path().string()) {
      durable = names();
      changes.clear();
    } else if (e.op == FileOp::kOpen || e.op == FileOp::kRemove) {
      before = inode(e.name);
    }
    return 0;
  }
  void done(const FileEvent& e) override {
    std::lock_guard lock(mutex);
    const size_t dir_size = dir.path().string().size();
    if (crashed || directory_of(e.name) != dir.path().string()) return;
    const std::string name = e.name.substr(dir_size + 1);
    if (e.op == FileOp::kOpen && before == 0) changes.push_back({"", name, inode(e.name)});
    if (e.op == FileOp::kRename)
      changes.push_back({name, e.to->substr(dir_size + 1), inode(*e.to)});
    if (e.op == FileOp::kRemove) changes.push_back({name, "", before});
  }

  void crash(Loss loss) {
    crashed = true;
    if (loss == Loss::kNothing) return;
    std::map<std::string, ino_t> kept = loss == Loss::kUnsyncedData ? names() : durable;
    size_t from = loss == Loss::kEarlierNames && !changes.empty() ? changes.size() - 1 : 0;
    for (size_t i = from; loss != Loss::kUnsyncedData && i < changes.size(); ++i) {
      const Change& c = changes[i];
      if (!c.from.empty() && kept[c.from] == c.ino) kept.erase(c.from);
      if (!c.to.empty()) kept[c.to] = c.ino;
    }
    // Each file waits under a name outside the directory, to come back with its inode.
    TempDir attic;
    for (const auto& [name, ino] : names()) {
      ::link(dir.file(name).c_str(), attic.file(std::to_string(ino)).c_str());
      ::unlink(dir.file(name).c_str());
    }
    std::set<ino_t> relinked;
    for (const auto& [name, ino] : kept) {
      if (relinked.insert(ino).second) {
        ::link(attic.file(std::to_string(ino)).c_str(), dir.file(name).c_str());
      }
      dir.write(name, synced.count(ino) ? synced[ino] : "");
    }
  }

  static ino_t inode(const std::string& name) {
    struct stat st {};
    return ::lstat(name.c_str(), &st) == 0 ? st.st_ino : 0;
  }
  std::map<std::string, ino_t> names() const {
    std::map<std::string, ino_t> found;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
      found[entry.path().filename().string()] = inode(entry.path().string());
    }
    return found;
  }

  struct Change {
    std::string from, to;  // "" for a creation or a removal
    ino_t ino;
  };
  const TempDir& dir;
  int nth;
  size_t partial;
  bool power_cut;
  std::mutex mutex;
  int seen = 0;
  bool hit = false, off = false, crashed = false;
  ino_t before = 0;
  std::map<std::string, ino_t> durable;
  std::vector<Change> changes;
  std::map<ino_t, std::string> synced;
};

// `count` days of sections.
std::string days(int count) {
  std::string audit;
  long t = 1790985600;  // 2026-10-03 00:00 UTC
  for (int day = 0; day < count; ++day) {
    for (int i = 0; i < 4; ++i) {
      audit += "routing\naudit " + std::to_string(t + day * 86400 + i * 60) +
               "\noriginator a/b\nrecipient-to c/d\nack-req 1\nqueue LOCAL\nsubject s" +
               std::to_string(i) + "\n\nstray line\n";
    }
  }
  return audit;
}

// Converts the whole audit text in `dir` as one run of the daemon would, keeping three
// generations.
void run_once(const TempDir& dir, const std::string& audit) {
  Options options;
  options.output_base = dir.file("cdf");
  options.max_generations = 3;
  Harness h(audit, options);
  adcdf_process_file(h.ctx);
}

// Half of the first day converted, then the position file lost (as after an upgrade) and the
// empty generation of the first start removed: the next run starts over a generation of records
// without a position, and its first rotation moves that generation first.
void half_a_day_without_position(const TempDir& dir) {
  run_once(dir, days(1).substr(0, days(1).size() / 2));
  std::filesystem::remove(dir.file("cdf.POS"));
  std::filesystem::remove(dir.file("cdf.001"));
}

// What the audit file holds after that half day was rotated away: `count` days but that half, so
// that no run after the cut can convert that half again, and losing its records shows.
std::string rest_of(int count) {
  return days(count).substr(days(1).size() / 2);
}

// Every file in the directory but the position file, header records cut to their type (they
// carry the day they were written).
std::map<std::string, std::string> outputs(const TempDir& dir) {
  auto found = dir.files("");
  for (auto& [name, text] : found) {
    for (size_t at = 0; (at = text.find("999,", at)) != std::string::npos;) {
      if (at == 0 || text[at - 1] == '\n') text.erase(at + 3, text.find('\n', at) - at - 3);
      at += 3;
    }
  }
  return found;
}

class FileFaults : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    // What reaches the disk is the injector's business here: on tmpfs a sync costs nothing.
    if (std::filesystem::is_directory("/dev/shm")) ::setenv("TMPDIR", "/dev/shm", 1);
    for (int count : {2, 4}) {
      TempDir reference;
      half_a_day_without_position(reference);
      run_once(reference, rest_of(count));
      expected_[count] = outputs(reference);
    }
  }
  // Runs over `audit_days` with `cut` installed, leaves the files as `loss` says and runs again;
  // false when the cut never came.
  bool cut_and_restart(const TempDir& dir, PowerCut& cut, Loss loss, int audit_days = 4) {
    try {
      run_once(dir, rest_of(audit_days));
    } catch (const AdcdfError&) {
    }
    if (!cut.hit) return false;
    cut.crash(loss);
    // What failed was cut back off the files: no torn line.
    for (const auto& [name, text] : dir.files("cdf.")) {
      EXPECT_TRUE(loss != Loss::kNothing || text.empty() || text.ends_with('\n')) << name;
    }
    run_once(dir, rest_of(audit_days));
    EXPECT_EQ(outputs(dir), expected_[audit_days]);
    return true;
  }
  std::map<int, std::map<std::string, std::string>> expected_;
};

// After each step of a run that starts over generations without a position (its start, commits
// and stop) and goes on over two days (its first rotation moves a generation of records) or four
// (its third removes the oldest generation), either that operation fails (a write after writing
// 10 bytes: a short write) and the daemon stops, or the power goes off: all later operations fail
// too and the files keep what the cut would leave.
TEST_F(FileFaults, FailureOrPowerCutAfterAnyStepLeavesWhatARestartRepairs) {
  const std::pair<Loss, const char*> losses[] = {{Loss::kNothing, "failed"},
                                                 {Loss::kUnsyncedData, "unsynced data lost"},
                                                 {Loss::kUncoveredNames, "uncovered names lost"},
                                                 {Loss::kEarlierNames, "earlier names lost"}};
  for (int audit_days : {2, 4}) {
    for (const auto& [loss, what] : losses) {
      for (int step = 1;; ++step) {
        SCOPED_TRACE(std::string(what) + " after step " + std::to_string(step - 1) + " of " +
                     std::to_string(audit_days) + " days");
        TempDir dir;
        half_a_day_without_position(dir);
        const bool failed = loss == Loss::kNothing;
        PowerCut cut(dir, step, failed ? 10 : SIZE_MAX, !failed);
        if (!cut_and_restart(dir, cut, loss, audit_days) || HasFailure()) break;
      }
    }
  }
}

}  // namespace
}  // namespace adcdf
