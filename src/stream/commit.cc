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
