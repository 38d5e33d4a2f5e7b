#include "stream/audit_input.h"

#include <algorithm>
#include <utility>

#include "support/signals.h"

namespace adcdf {

bool PollWaiter::keep_going() {
  return keep_running != 0;
}

void PollWaiter::pause() {
  if (once_) {
    keep_running = 0;
    return;
  }
  trace_.printf("waiting...\n");
  trace_.flush();
  sleep_interruptible(2);
}

AuditInput::AuditInput(ByteSource& source, Waiter& waiter, Tracer* trace,
                       std::optional<std::string> name)
    : initial_(source), source_(&source), reader_(source), waiter_(waiter), trace_(trace) {
  if (name && source.regular()) files_.emplace(std::move(*name));
}

AuditInput::Resumed AuditInput::resume(long long offset, const Fingerprint& head,
                                       const FileId& id) {
  if (!files_) {
    std::string first(head.length, '\0');
    first.resize(source_->read_head(first.data(), first.size()));
    if (source_->size() < offset || fingerprint_of(first) != head) return Resumed::kNo;
    reader_.reset(*source_, offset);
    return Resumed::kYes;
  }
  std::optional<Resume> found = files_->resume(*source_, offset, head, id);
  if (!found) return Resumed::kNo;
  if (found->source) {
    owned_ = std::move(found->source);
    source_ = owned_.get();
    trace_rotated();
  }
  reader_.reset(*source_, found->lost ? 0 : offset);
  return found->lost ? Resumed::kAfterLoss : Resumed::kYes;
}

void AuditInput::trace_rotated() {
  if (trace_ != nullptr) trace_->printf("Reading rotated audit file %s\n", source_->name().c_str());
}

std::string_view AuditInput::section_line_after_wait() {
  auto line = next(true);
  if (!line) throw SectionAbandoned{};
  return *line;
}

std::optional<std::string_view> AuditInput::next(bool in_section) {
  for (;;) {
    if (reading_ != Reading::kEnded) {
      if (auto line = reader_.next()) return line;
    }
    if (!in_section && unreadable_) report(AuditTrouble{-1, std::exchange(unreadable_, {})});
    if (reading_ != Reading::kLive) {
      if (reading_ == Reading::kDraining) {
        if (auto rest = reader_.rest()) return rest;
      }
      if (in_section) throw SectionCut{};
      take_next();
      continue;
    }
    if (!waiter_.keep_going()) return std::nullopt;
    if (look()) continue;
    if (before_wait_) before_wait_();
    waiter_.pause();
    // Before anything beyond the offset is read: the file may have been truncated and written
    // again past it meanwhile.
    look();
  }
}

bool AuditInput::look() {
  if (!files_) return false;
  Look found = files_->look(*source_, reader_.offset(), reader_.head());
  if (found.unreadable) unreadable_ = std::move(found.unreadable);
  if (!found.rotated()) return false;
  if (found.truncated) {
    // The truncated file is read again later, from its start.
    NextRead& again = found.plan.back();
    if (owned_ && owned_.get() == source_) again.source = std::move(owned_);
  }
  plan_ = std::move(found.plan);
  if (found.copy) {
    owned_ = std::move(found.copy);
    source_ = owned_.get();
    trace_rotated();
    reader_.reset(*source_, reader_.offset());
    reading_ = Reading::kDraining;
  } else {
    reading_ = found.truncated ? Reading::kEnded : Reading::kDraining;
  }
  return true;
}

void AuditInput::take_next() {
  while (!plan_.empty()) {
    NextRead next = std::move(plan_.front());
    plan_.pop_front();
    if (next.kind == NextRead::kLost) {
      report(AuditTrouble{next.lost, std::nullopt});
      continue;
    }
    if (next.source) {
      owned_ = std::move(next.source);
      source_ = owned_.get();
    } else {
      source_ = &initial_;  // the file opened at start, truncated since
    }
    if (next.kind == NextRead::kSameFile && files_) {
      ReadPlan again = files_->truncated_again(*source_, next.head);
      if (!again.empty()) {
        if (owned_ && owned_.get() == source_) again.back().source = std::move(owned_);
        for (auto it = again.rbegin(); it != again.rend(); ++it) plan_.push_front(std::move(*it));
        continue;
      }
    }
    reader_.reset(*source_, next.start);
    reading_ = next.kind == NextRead::kRotated ? Reading::kDraining : Reading::kLive;
    if (next.kind == NextRead::kRotated) {
      trace_rotated();
    } else if (trace_ != nullptr) {
      trace_->printf(next.kind == NextRead::kAtName
                         ? "Audit file replaced: reading %s from its start\n"
                         : "Audit file truncated: reading %s from its start\n",
                     source_->name().c_str());
    }
    if (at_new_file_) at_new_file_();
    return;
  }
  reading_ = Reading::kLive;
}

void AuditInput::report(const AuditTrouble& trouble) {
  if (report_) report_(trouble);
}

}  // namespace adcdf
