#include "stream/commit.h"

#include <algorithm>

#include "stream/restart.h"
#include "support/clock.h"

namespace adcdf {

void commit_output(Context& ctx) {
  PendingOutput& pending = ctx.output;
  const bool anything = pending.complete_size() > 0;
  // Error entries first: when writing them fails, the records are not written either, and a
  // restart converts those sections again.
  if (!pending.complete_errors().empty()) ctx.errlog.append(pending.complete_errors());
  if (!pending.complete_records().empty()) {
    ctx.generations.current().append(pending.complete_records());
    ctx.metrics.records += std::ranges::count(pending.complete_records(), '\n');
  }
  pending.forget_complete();
  pending.since.reset();
  ctx.committed = ctx.handled;
  if (anything) keep_position(ctx, PositionDue::kAfterCommit);
}

void commit_when_due(Context& ctx) {
  const size_t pending = ctx.output.complete_size();
  if (pending == 0) {
    ctx.committed = ctx.handled;
    return;
  }
  const auto now = coarse_now();
  if (!ctx.output.since) ctx.output.since = now;
  if (pending >= kCommitBytes || now - *ctx.output.since >= kCommitDelay) commit_output(ctx);
}

void commit_when_late(Context& ctx) {
  if (ctx.output.since && coarse_now() - *ctx.output.since >= kCommitDelay) commit_output(ctx);
}

void bound_section_output(Context& ctx, bool read_whole) {
  PendingOutput& pending = ctx.output;
  if (pending.section_size() < pending.section_limit) return;
  if (read_whole) {
    write_section_part(ctx);
    return;
  }
  commit_output(ctx);
  pending.spill_section();
}

void write_section_part(Context& ctx) {
  PendingOutput& pending = ctx.output;
  commit_output(ctx);
  // The rotation's position still lies before the section: it is taken before any of the
  // section reaches the files, so that a restart there converts the whole section again.
  if (pending.rotation) rotate_for_section(ctx);
  auto to_errors = [&ctx](std::string_view piece) { ctx.errlog.append(piece); };
  auto to_records = [&ctx](std::string_view piece) { ctx.generations.current().append(piece); };
  pending.errors_spill.read_back(PendingOutput::kSectionLimit, to_errors);
  if (!pending.errors.empty()) to_errors(pending.errors.view());
  pending.records_spill.read_back(PendingOutput::kSectionLimit, to_records);
  if (!pending.records.empty()) to_records(pending.records.view());
  pending.forget_section();
}

void rotate_for_section(Context& ctx) {
  // What the sections before this one produced was committed when its header asked for the
  // rotation, so the position is at its name line; with its date, so that a restart there
  // converts it into the new generation without rotating again.
  ctx.positions.settle();
  ctx.errlog.sync();
  Position at = position_now(ctx);
  at.last = ctx.last;
  ctx.generations.rotate(*ctx.output.rotation, at, ctx.positions);
  ctx.output.rotation.reset();
}

}  // namespace adcdf
