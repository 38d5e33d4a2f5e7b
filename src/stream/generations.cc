#include "stream/generations.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "stream/context.h"

namespace adcdf {

std::string Generations::name(int generation) const {
  char suffix[16];
  std::snprintf(suffix, sizeof suffix, ".%03d", generation);
  return base_ + suffix;
}

void Generations::open_current() { current_ = File::append(name(0)); }

RotationPlan Generations::plan(Tracer& trace) const {
  const int kept = std::max(maxgen_, 1);
  RotationPlan plan;
  std::string oldest = name(kept - 1);
  trace.printf("Attempting to remove: %s\n", oldest.c_str());
  if (file_exists(oldest)) plan.remove = oldest;
  for (int i = kept - 2; i >= 0; --i) {
    std::string search = name(i);
    trace.printf("Looking for: %s\n", search.c_str());
    if (file_exists(search)) {
      std::string next = name(i + 1);
      trace.printf("Attempting to rename %s to %s\n", search.c_str(), next.c_str());
      plan.renames.emplace_back(std::move(search), std::move(next));
    }
  }
  return plan;
}

void Generations::rotate(const RotationPlan& plan) {
  current_.close();
  if (plan.remove && file_exists(*plan.remove)) remove_file(*plan.remove);
  for (const auto& [from, to] : plan.renames) rename_file(from, to);
  current_ = File::create(name(0));
}

std::string header_record(std::time_t now, std::string_view host) {
  struct tm local {};
  localtime_r(&now, &local);
  char head[96];
  std::snprintf(head, sizeof head, "999,%d,%d,%d,0,0,0,0,\"", local.tm_year, local.tm_mon + 1,
                local.tm_mday);
  std::string record = head;
  record.append(host);
  record.append("\",0,0,0,\"\",\"\",0,0,0,\"\",0,0,0,\"\",\"\"\n");
  return record;
}

int adcdf_rename_files(Context& ctx) {
  TraceScope scope(ctx.trace, "adcdf_rename_files");
  ctx.section.rotation = ctx.generations.plan(ctx.trace);
  adcdf_writeheaderrec(ctx);
  scope.done();
  return 0;
}

int adcdf_writeheaderrec(Context& ctx) {
  TraceScope scope(ctx.trace, "adcdf_writeheaderrec");
  char host[257] = {};
  ::gethostname(host, 256);
  host[256] = '\0';
  ctx.section.records.insert(0, header_record(std::time(nullptr), host));
  scope.done();
  return 0;
}

}  // namespace adcdf
