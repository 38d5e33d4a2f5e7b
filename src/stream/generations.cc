#include "stream/generations.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "stream/header_record.h"
#include "support/error.h"

namespace adcdf {
namespace {

constexpr std::string_view kJournalEnd = "end";

// A journal: the position that names the new generation, then each rename's two names, every
// part ended by a NUL, then the end marker. Whether it is complete is decided from its form alone,
// before any name in it is looked at: it must end with the marker, its position must pass its
// check, and every name must be there and non-empty. Anything else (torn, zero-filled by a power
// cut, cut short) is the trace of a rotation that had not begun its renames.
std::optional<std::pair<Position, Generations::Steps>> decode_journal(std::string_view text) {
  if (!text.ends_with(kJournalEnd)) return std::nullopt;
  text.remove_suffix(kJournalEnd.size());
  const size_t position_end = text.find('\0');
  if (position_end == std::string_view::npos) return std::nullopt;
  auto at = decode_position(text.substr(0, position_end));
  if (!at) return std::nullopt;
  text.remove_prefix(position_end + 1);
  std::vector<std::string> names;
  while (!text.empty()) {
    const size_t end = text.find('\0');
    if (end == 0 || end == std::string_view::npos) return std::nullopt;
    names.emplace_back(text.substr(0, end));
    text.remove_prefix(end + 1);
  }
  if (names.empty() || names.size() % 2 != 0) return std::nullopt;
  Generations::Steps steps;
  for (size_t i = 0; i < names.size(); i += 2) steps.emplace_back(names[i], names[i + 1]);
  return std::pair{at->first, std::move(steps)};
}

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
// one, and running the steps again after a crash finishes the rotation. Each rename is made
// durable before the next: were a later one kept by a power cut and an earlier one lost, the
// earlier would look pending and move the wrong file.
void Generations::finish(const Steps& steps, const Position& at, PositionFile& positions) {
  for (const auto& [from, to] : steps) {
    if (file_exists(to) || !file_exists(from)) continue;
    rename_file(from, to);
    sync_directory_of(to);
  }
  // Also covers renames an interrupted run made and the position file's name.
  sync_directory_of(names_.journal());
  positions.write(at, true);
  remove_side_files();
}

// The journal goes first, durably: while it is there the oldest generation's removal must not be
// (the first step would then look pending again).
void Generations::remove_side_files() {
  if (file_exists(names_.journal())) {
    remove_file(names_.journal());
    sync_directory_of(names_.journal());
  }
  bool removed = false;
  for (const std::string* name : {&names_.doomed(), &names_.fresh()}) {
    if (file_exists(*name)) {
      remove_file(*name);
      removed = true;
    }
  }
  if (removed) sync_directory_of(names_.journal());
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
  // There by name before a journal names it.
  sync_directory_of(names_.fresh());

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
  // There by name before the first rename.
  sync_directory_of(names_.journal());
  finish(steps, at, positions);
  open_current();
}

void Generations::recover(PositionFile& positions) {
  if (file_exists(names_.journal())) {
    auto journal = decode_journal(File::read_only(names_.journal()).contents());
    // Only renames among this base name's own files are ever carried out: a complete journal
    // that names anything else was not written by the daemon and stops it, with nothing moved.
    for (const auto& [from, to] : journal ? journal->second : Steps{}) {
      for (const std::string* name : {&from, &to}) {
        if (!names_.is_generation_or_side(*name)) {
          throw AdcdfError(kGroupFile, kReasonJournal,
                           names_.journal() + " names " + *name + ", not a file of this base name");
        }
      }
    }
    if (journal) return finish(journal->second, journal->first, positions);
  }
  remove_side_files();
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

}  // namespace adcdf
