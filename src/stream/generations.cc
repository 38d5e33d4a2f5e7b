#include "stream/generations.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "stream/commit.h"
#include "stream/context.h"
#include "stream/header_record.h"
#include "support/error.h"

namespace adcdf {
namespace {

constexpr std::string_view kJournalEnd = "end";

}  // namespace

Generations::Generations(std::string base, int maxgen) : names_(std::move(base)), maxgen_(maxgen) {}

void Generations::open_current() {
  current_ = Appender(File::append(names_.generation(0)));
}

RotationPlan Generations::plan(Tracer& trace) const {
  const int kept = std::max(maxgen_, 1);
  RotationPlan plan;
  std::string oldest = names_.generation(kept - 1);
  trace.printf("Attempting to remove: %s\n", oldest.c_str());
  if (file_exists(oldest)) plan.remove = oldest;
  for (int i = kept - 2; i >= 0; --i) {
    std::string search = names_.generation(i);
    trace.printf("Looking for: %s\n", search.c_str());
    if (file_exists(search)) {
      std::string next = names_.generation(i + 1);
      trace.printf("Attempting to rename %s to %s\n", search.c_str(), next.c_str());
      plan.renames.emplace_back(std::move(search), std::move(next));
    }
  }
  return plan;
}

// Each step is a rename that is done once its target exists or its source is gone: no step
// moves onto a name that still holds a generation, so this tells a done step from a pending
// one, and running the steps again after a crash finishes the rotation.
void Generations::run_steps(const Steps& steps) {
  for (const auto& [from, to] : steps) {
    if (file_exists(to) || !file_exists(from)) continue;
    rename_file(from, to);
  }
}

void Generations::rotate(const RotationPlan& plan, Position at, PositionFile& positions) {
  current_.sync();
  current_.close();
  {
    File fresh = File::create(names_.fresh());
    fresh.write_all(plan.header);
    fresh.sync();
    at.current_id = fresh.id();
    at.current_size = static_cast<long long>(plan.header.size());
  }

  Steps steps;
  if (plan.remove) steps.emplace_back(*plan.remove, names_.doomed());
  steps.insert(steps.end(), plan.renames.begin(), plan.renames.end());
  steps.emplace_back(names_.fresh(), names_.generation(0));
  std::string journal = encode_position(at, 0);
  journal.push_back('\0');
  for (const auto& [from, to] : steps) {
    journal.append(from).push_back('\0');
    journal.append(to).push_back('\0');
  }
  journal.append(kJournalEnd);
  {
    File file = File::create(names_.journal());
    file.write_all(journal);
    file.sync();
  }

  run_steps(steps);
  sync_directory_of(names_.journal());
  positions.write(at, true);
  remove_file(names_.journal());
  if (file_exists(names_.doomed())) remove_file(names_.doomed());
  open_current();
}

void Generations::recover(PositionFile& positions) {
  if (file_exists(names_.journal())) {
    std::string journal = File::read_only(names_.journal()).contents();
    const bool complete = journal.ends_with(kJournalEnd);
    if (complete) journal.resize(journal.size() - kJournalEnd.size());
    size_t position_end = journal.find('\0');
    std::optional<std::pair<Position, uint64_t>> at;
    Steps steps;
    if (position_end != std::string::npos) {
      at = decode_position(journal.substr(0, position_end));
      for (size_t pos = position_end + 1; pos < journal.size();) {
        size_t from_end = journal.find('\0', pos);
        size_t to_end = journal.find('\0', from_end + 1);
        if (from_end == std::string::npos || to_end == std::string::npos) break;
        steps.emplace_back(journal.substr(pos, from_end - pos),
                           journal.substr(from_end + 1, to_end - from_end - 1));
        pos = to_end + 1;
      }
    }
    // Only renames among this base name's own files are ever carried out: a journal that names
    // anything else was not written by the daemon and stops it, with nothing moved.
    for (const auto& [from, to] : steps) {
      for (const std::string* name : {&from, &to}) {
        if (!names_.is_generation_or_side(*name)) {
          throw AdcdfError(kGroupFile, kReasonJournal,
                           names_.journal() + " names " + *name + ", not a file of this base name");
        }
      }
    }
    if (at && complete) {
      run_steps(steps);
      sync_directory_of(names_.journal());
      positions.write(at->first, true);
    }
    remove_file(names_.journal());
  }
  if (file_exists(names_.fresh())) remove_file(names_.fresh());
  if (file_exists(names_.doomed())) remove_file(names_.doomed());
}

std::string header_record(std::time_t now, std::string_view host) {
  struct tm local {};
  localtime_r(&now, &local);
  char head[96];
  std::snprintf(head, sizeof head, "%d,%d,%d,%d,0,0,0,0,\"", kHeaderType, local.tm_year,
                local.tm_mon + 1, local.tm_mday);
  std::string record = head;
  record.append(host).append("\",").append(kHeaderConstants);
  record.push_back('\n');
  return record;
}

int adcdf_rename_files(Context& ctx) {
  TraceScope scope(ctx.trace, "adcdf_rename_files");
  // What the sections before this one produced belongs in the generation that is about to move.
  commit_output(ctx);
  ctx.output.rotation = ctx.generations.plan(ctx.trace);
  adcdf_writeheaderrec(ctx);
  scope.done();
  return 0;
}

int adcdf_writeheaderrec(Context& ctx) {
  TraceScope scope(ctx.trace, "adcdf_writeheaderrec");
  char host[kHeaderHostWidth + 1] = {};
  ::gethostname(host, kHeaderHostWidth);
  ctx.output.rotation->header = header_record(std::time(nullptr), host);
  scope.done();
  return 0;
}

}  // namespace adcdf
