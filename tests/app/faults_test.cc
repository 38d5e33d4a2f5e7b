// Failures of the file operations the daemon cannot handle: each must stop it with an error,
// leave no torn record, and let a restart finish the work as one run would have done it.
#include "support/faults.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <sstream>

#include "app/process_loop.h"
#include "support/error.h"
#include "test_support.h"

namespace adcdf {
namespace {

using testing::Harness;
using testing::TempDir;

// Fails the `nth` (counted from 1) operation `op` on a file whose name ends with `suffix`.
class FailNth : public FaultInjector {
 public:
  FailNth(FileOp op, std::string suffix, int nth, size_t partial = SIZE_MAX)
      : op_(op), suffix_(std::move(suffix)), nth_(nth), partial_(partial) {}
  int fail(FileOp op, const std::string& name, size_t* partial) override {
    if (op != op_ || !name.ends_with(suffix_) || ++seen_ != nth_) return 0;
    if (partial != nullptr && partial_ != SIZE_MAX) *partial = partial_;
    return ENOSPC;
  }

 private:
  FileOp op_;
  std::string suffix_;
  int nth_;
  size_t partial_;
  int seen_ = 0;
};

class ScopedInjector {
 public:
  explicit ScopedInjector(FaultInjector* injector) { set_fault_injector(injector); }
  ~ScopedInjector() { set_fault_injector(nullptr); }
};

// Three days of sections, so that runs rotate twice.
std::string three_days() {
  std::string audit;
  long t = 1790985600;  // 2026-10-03 00:00 UTC
  for (int day = 0; day < 3; ++day) {
    for (int i = 0; i < 4; ++i) {
      audit += "routing\naudit " + std::to_string(t + day * 86400 + i * 60) +
               "\noriginator a/b\nrecipient-to c/d\nack-req 1\nqueue LOCAL\nsubject s" +
               std::to_string(i) + "\n\nstray line\n";
    }
  }
  return audit;
}

// Converts the whole audit text in `dir` as one run of the daemon would.
void run_once(const TempDir& dir, const std::string& audit) {
  Options options;
  options.gszBaseFilename = dir.file("cdf");
  Harness h(audit, options);
  adcdf_process_file(h.ctx);
}

// The records of all generations, oldest first, without header records.
std::vector<std::string> records(const TempDir& dir) {
  std::vector<std::string> lines;
  for (int generation = 99; generation >= 0; --generation) {
    char name[16];
    std::snprintf(name, sizeof name, "cdf.%03d", generation);
    if (!dir.exists(name)) continue;
    std::string text = dir.read(name);
    EXPECT_TRUE(text.empty() || text.back() == '\n') << name << " ends in a torn line";
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
      if (!line.starts_with("999,")) lines.push_back(line);
    }
  }
  return lines;
}

class FileFaults : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    run_once(reference_, three_days());
  }
  TempDir reference_;
};

TEST_F(FileFaults, FailedWritesStopAndRestartLosesNothing) {
  struct Case {
    const char* what;
    FileOp op;
    const char* suffix;
    int nth;
    size_t partial;
  };
  const Case cases[] = {
      {"failed append", FileOp::kWrite, "cdf.000", 2, SIZE_MAX},
      {"short append", FileOp::kWrite, "cdf.000", 3, 40},
      {"failed write of a new generation", FileOp::kWrite, "-rotation.new", 2, 10},
      {"failed rename during rotation", FileOp::kRename, "cdf.000", 1, SIZE_MAX},
      {"failed removal of the oldest", FileOp::kRename, "cdf.001", 1, SIZE_MAX},
      {"unopenable current generation", FileOp::kOpen, "cdf.000", 1, SIZE_MAX},
      {"failed error-file write", FileOp::kWrite, "cdf.ERR", 2, SIZE_MAX},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir dir;
    std::map<std::string, std::string> before;
    {
      FailNth injector(c.op, c.suffix, c.nth, c.partial);
      ScopedInjector scoped(&injector);
      EXPECT_THROW(run_once(dir, three_days()), AdcdfError);
    }
    records(dir);  // no generation holds a torn line
    run_once(dir, three_days());
    EXPECT_EQ(records(dir), records(reference_));
    EXPECT_EQ(dir.read("cdf.ERR"), reference_.read("cdf.ERR"));
  }
}

}  // namespace
}  // namespace adcdf
