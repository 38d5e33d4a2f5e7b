#include "app/metrics.h"

#include <sys/stat.h>

#include <algorithm>

#include "support/clock.h"
#include "support/error.h"
#include "support/textfile.h"

namespace adcdf {

std::string metrics_text(Context& ctx, const Counters& counters) {
  const Metrics& m = ctx.metrics;
  Textfile t("base", ctx.options.output_base);
  t.metric("ekadcdf_sections_converted_total", "counter",
           "Audit file sections converted (or passed over), by kind.");
  for (size_t i = 0; i < counters.size(); ++i) t.sample(counters[i], "kind", kKinds[i].label);
  t.metric("ekadcdf_records_written_total", "counter",
           "CDF records written to the current generation.");
  t.sample(m.records);
  t.metric("ekadcdf_error_entries_total", "counter",
           "Entries written to the error file, by cause.");
  t.sample(m.errors.unknown_section, "cause", "unknown_section");
  t.sample(m.errors.skipped_line, "cause", "skipped_line");
  t.sample(m.errors.dropped_section, "cause", "dropped_section");
  t.sample(m.errors.audit_data_lost, "cause", "audit_data_lost");
  t.sample(m.errors.audit_unreadable, "cause", "audit_unreadable");
  t.metric("ekadcdf_generations_rotated_total", "counter", "Rotations of the output generations.");
  t.sample(m.rotations);
  t.metric("ekadcdf_audit_unread_bytes", "gauge",
           "Bytes of the audit file not read yet: its size minus the offset reached.");
  t.sample(ctx.input.unread_bytes());
  t.metric("ekadcdf_last_section_timestamp_seconds", "gauge",
           "Event time of the last converted section, seconds since 1970 (0: none yet).");
  t.sample(m.last_event);
  struct stat st {};
  const bool recorded = ::stat(ctx.generations.names().position().c_str(), &st) == 0;
  t.metric("ekadcdf_position_timestamp_seconds", "gauge",
           "Time the position a restart resumes from was last recorded, seconds since 1970.");
  t.sample(recorded ? static_cast<int64_t>(st.st_mtime) : 0);
  t.metric("ekadcdf_start_time_seconds", "gauge", "Start time of the process, seconds since 1970.");
  t.sample(m.started);
  return t.text();
}

void MetricsFile::write() {
  if (ctx_.options.metrics.empty()) return;
  written_ = coarse_now();
  try {
    write_textfile(ctx_.options.metrics, metrics_text(ctx_, counters_));
  } catch (const AdcdfError&) {
    // Not a reason to stop converting; the next write tries again.
  }
}

void MetricsFile::write_when_due() {
  if (!ctx_.options.metrics.empty() && coarse_now() - written_ >= kMetricsEvery) write();
}

}  // namespace adcdf
