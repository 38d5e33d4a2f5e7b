#include "stream/audit_input.h"

#include <algorithm>
#include <utility>

#include "support/hash.h"
#include "support/signals.h"

namespace adcdf {

bool PollWaiter::keep_going() {
  return bContinue != 0;
}

void PollWaiter::pause() {
  if (once_) {
    bContinue = 0;
    return;
  }
  trace_.printf("waiting...\n");
  trace_.flush();
  sleep_interruptible(2);
}

std::optional<Fingerprint> fingerprint_of(ByteSource& source, long long covered) {
  char head[kFingerprintBytes];
  size_t want = static_cast<size_t>(std::clamp<long long>(covered, 0, kFingerprintBytes));
  if (source.read_head(head, want) < want) return std::nullopt;
  return Fingerprint{static_cast<uint32_t>(want), fnv1a(std::string_view(head, want))};
}

Fingerprint AuditInput::fingerprint(long long covered) {
  if (full_ && covered >= kFingerprintBytes) return *full_;
  Fingerprint print = fingerprint_of(source_, covered).value_or(Fingerprint{});
  if (print.length == kFingerprintBytes) full_ = print;
  return print;
}

void AuditInput::start_at(long long offset) {
  source_.seek(offset);
  reader_.reset(offset);
}

std::string_view AuditInput::section_line_after_wait() {
  auto line = next(true);
  if (!line) throw SectionAbandoned{};
  return *line;
}

std::optional<std::string_view> AuditInput::next(bool in_section) {
  for (;;) {
    if (auto line = reader_.next()) return line;
    if (change_ != NameChange::kNone) {
      if (auto rest = reader_.rest()) return rest;
      if (switch_file()) {
        if (in_section) throw SectionCut{};
        if (at_new_file_) at_new_file_();
      }
      continue;
    }
    if (!waiter_.keep_going()) return std::nullopt;
    change_ = source_.look_at_name();
    if (change_ != NameChange::kNone) continue;  // read what the old file still holds
    if (before_wait_) before_wait_();
    waiter_.pause();
  }
}

bool AuditInput::switch_file() {
  NameChange change = std::exchange(change_, NameChange::kNone);
  if (!source_.reopen_at_name()) return false;
  reader_.reset(0);
  full_.reset();
  if (trace_ != nullptr) {
    trace_->printf(change == NameChange::kReplaced
                       ? "Audit file replaced: reading %s from its start\n"
                       : "Audit file truncated: reading %s from its start\n",
                   source_.name().c_str());
  }
  return true;
}

}  // namespace adcdf
