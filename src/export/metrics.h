// The exporter's metrics file (--metrics FILE), in the node exporter's textfile format
// (support/textfile.h): rows loaded per table, lines rejected and the time of the last commit,
// written at start and after every run.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "export/target.h"

namespace adcdf::exporter {

// A target that counts the rows of each run per record type and adds them to its totals only
// when the run is committed.
class CountingTarget : public Target {
 public:
  CountingTarget();
  // The target the runs go to; null to let go of it (it is opened again after a failure).
  void attach(std::unique_ptr<Target> inner) { inner_ = std::move(inner); }
  bool attached() const { return inner_ != nullptr; }

  std::vector<Loaded> begin(const std::vector<std::string>& locks) override;
  int64_t new_id() override { return inner_->new_id(); }
  void write(const Row& row) override;
  void commit(const LoadedChange& change) override;
  void abandon() override;
  std::map<int64_t, Origins> origins() override { return inner_->origins(); }

  // Committed rows by catalogue position, and when the last commit was (seconds since 1970).
  const std::vector<int64_t>& rows() const { return rows_; }
  int64_t committed_at() const { return committed_at_; }

 private:
  std::unique_ptr<Target> inner_;
  std::vector<int64_t> rows_, run_;
  int64_t committed_at_ = 0;
};

void write_export_metrics(const std::string& path, const std::string& base,
                          const CountingTarget& target, int64_t rejected);

}  // namespace adcdf::exporter
