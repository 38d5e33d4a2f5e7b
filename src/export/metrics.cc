#include "export/metrics.h"

#include <ctime>

#include "support/error.h"
#include "support/textfile.h"

namespace adcdf::exporter {

CountingTarget::CountingTarget()
    : rows_(record_catalogue().size()), run_(record_catalogue().size()) {}

std::vector<Loaded> CountingTarget::begin(const std::vector<std::string>& locks) {
  std::fill(run_.begin(), run_.end(), 0);
  return inner_->begin(locks);
}

void CountingTarget::write(const Row& row) {
  inner_->write(row);
  ++run_[static_cast<size_t>(row.type - record_catalogue().data())];
}

void CountingTarget::commit(const LoadedChange& change) {
  inner_->commit(change);
  for (size_t i = 0; i < rows_.size(); ++i) rows_[i] += run_[i];
  std::fill(run_.begin(), run_.end(), 0);
  committed_at_ = std::time(nullptr);
}

void CountingTarget::abandon() {
  std::fill(run_.begin(), run_.end(), 0);
  inner_->abandon();
}

void write_export_metrics(const std::string& path, const std::string& base,
                          const CountingTarget& target, int64_t rejected) {
  if (path.empty()) return;
  Textfile t("base", base);
  t.metric("ekadcdf_export_rows_loaded_total", "counter",
           "Rows loaded and committed, by table, since the exporter started.");
  const auto types = record_catalogue();
  for (size_t i = 0; i < types.size(); ++i) {
    if (types[i].type != kHeaderType)
      t.sample(target.rows()[i], "table", table_name(types[i].type));
  }
  t.metric("ekadcdf_export_rejected_lines_total", "counter",
           "Lines that could not be split into the columns of one record type.");
  t.sample(rejected);
  t.metric("ekadcdf_export_last_commit_timestamp_seconds", "gauge",
           "Time of the last commit that loaded something, seconds since 1970 (0: none yet).");
  t.sample(target.committed_at());
  try {
    write_textfile(path, t.text());
  } catch (const AdcdfError&) {
    // The loading goes on; the next run writes the file again.
  }
}

}  // namespace adcdf::exporter
