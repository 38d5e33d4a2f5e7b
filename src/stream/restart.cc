#include "stream/restart.h"

#include <string>

#include "stream/checkpoint.h"
#include "stream/output_names.h"

namespace adcdf {
namespace {

void apply_prefix(Context& ctx, const PrefixValues& v) {
  int* targets[] = {nullptr,        &ctx.last.year,   &ctx.last.month, &ctx.last.day,
                    &ctx.last.hour, &ctx.last.minute, &ctx.last.second};
  for (int i = 1; i < v.count && i < 7; ++i) {
    *targets[i] = static_cast<int>(v.values[static_cast<size_t>(i)]);
  }
  if (v.count == 8) ctx.checkpoint = v.values[7];
}

// The last line of <base>.000, which a start reads whether it resumes or not.
PrefixValues last_line(const File& current) {
  ReverseLineReader lines(current);
  return parse_prefix(lines.previous().value_or(std::string()));
}

void report_unparsable(Context& ctx, const PrefixValues& last) {
  if (!last.complete())
    ctx.trace.write("Unable to parse date and time on last line of .000 file.\n");
}

// Checks a position against the files; on success the audit input reads on from the position in
// the file it was taken in (the one at the audit file's name, or a rotated one).
AuditInput::Resumed valid(Context& ctx, const Position& at, bool& outputs_match) {
  std::optional<FileId> current = file_id(ctx.generations.name(0));
  if (!current || *current != at.current_id ||
      File::read_only(ctx.generations.name(0)).size() < at.current_size) {
    return AuditInput::Resumed::kNo;
  }
  if (!ctx.options.noerr) {
    const std::string errors = ctx.generations.names().errors();
    if (!at.errors_size || !file_exists(errors) ||
        File::read_only(errors).size() < *at.errors_size) {
      return AuditInput::Resumed::kNo;
    }
  }
  outputs_match = true;
  return ctx.input.resume(at.offset, at.audit_head, at.audit_id);
}

void open_error_file(Context& ctx, const std::optional<Position>& resume) {
  if (ctx.options.noerr) {
    ctx.errlog = Appender(File::null_device());
    ctx.trace.printf("Opened error file: /dev/null\n");
    return;
  }
  const std::string name = ctx.generations.names().errors();
  if (resume) {
    ctx.errlog = Appender(File::append(name));
    ctx.errlog.cut(*resume->errors_size);
  } else {
    ctx.errlog = Appender(File::create(name));
  }
  ctx.trace.printf("Opened error file: %s\n", name.c_str());
}

void resume_at(Context& ctx, const Position& at, AuditInput::Resumed how) {
  const std::string current = ctx.generations.name(0);
  ctx.trace.printf("File does exist: %s\n", current.c_str());
  {
    File file = File::read_write(current);
    file.truncate(at.current_size);
    report_unparsable(ctx, last_line(file));
  }
  ctx.last = at.last;
  ctx.checkpoint = at.checkpoint;
  ctx.line_number = at.line;
  ctx.trace.printf("Check point time: %ld\n", ctx.checkpoint);
  ctx.trace.printf("Resuming at line %d of the audit file\n", ctx.line_number);
  // Truncated while the daemon was down, with no copy: what it held beyond the position is gone.
  if (how == AuditInput::Resumed::kAfterLoss) ctx.input.report(AuditTrouble{});
}

}  // namespace

void restore_checkpoint(Context& ctx) {
  const std::string current = ctx.generations.name(0);
  std::optional<PrefixValues> newest;
  if (file_exists(current)) {
    ctx.trace.printf("File does exist: %s\n", current.c_str());
    File file = File::read_write(current);
    ReverseLineReader lines(file);
    if (lines.complete_end() < file.size()) file.truncate(lines.complete_end());
    PrefixValues last = parse_prefix(lines.previous().value_or(std::string()));
    report_unparsable(ctx, last);
    apply_prefix(ctx, last);
    newest = last.complete() && !last.is_header() ? std::optional(last) : newest_record(file);
  } else {
    ctx.trace.printf("File does not exist: %s\n", current.c_str());
  }
  for (int generation = 1; !newest && generation < OutputNames::kMostGenerations; ++generation) {
    std::string older = ctx.generations.name(generation);
    if (file_exists(older)) newest = newest_record(File::read_only(older));
  }
  if (newest) {
    ctx.last = LocalTime{};
    apply_prefix(ctx, *newest);
  }
}

void start_run(Context& ctx) {
  ctx.line_number = 1;
  ctx.last = LocalTime{};
  ctx.checkpoint = 0;
  ctx.positions.lock(ctx.generations.names().position());
  ctx.generations.recover(ctx.positions);
  std::optional<Position> resume = ctx.positions.newest();
  bool outputs_match = false;
  const AuditInput::Resumed how =
      resume ? valid(ctx, *resume, outputs_match) : AuditInput::Resumed::kNo;
  // The output is the position's, but its audit file is nowhere (removed, or compressed with
  // something else than gzip while the daemon was down): what it held beyond the position is
  // lost, and the start goes on without a position.
  const int lost_after = outputs_match && how == AuditInput::Resumed::kNo ? resume->line - 1 : -1;
  if (how == AuditInput::Resumed::kNo) resume.reset();

  open_error_file(ctx, resume);
  ctx.trace.printf("Opening file: %s\n", ctx.generations.name(0).c_str());
  if (resume) {
    resume_at(ctx, *resume, how);
  } else {
    restore_checkpoint(ctx);
    ctx.trace.printf("Check point time: %ld\n", ctx.checkpoint);
    if (lost_after >= 0) ctx.input.report(AuditTrouble{-1, std::nullopt, lost_after});
  }
  ctx.generations.open_current();
  ctx.mark_handled();
  ctx.committed = ctx.handled;
  ctx.positions.write(position_now(ctx));
}

Position position_now(Context& ctx) {
  Position at;
  at.offset = ctx.committed.offset;
  at.line = ctx.committed.line;
  at.audit_head = ctx.input.fingerprint(at.offset);
  at.audit_id = ctx.input.file_id();
  at.current_id = ctx.generations.current().id();
  at.current_size = ctx.generations.current().size();
  if (!ctx.options.noerr) at.errors_size = ctx.errlog.size();
  at.last = ctx.committed.last;
  at.checkpoint = ctx.checkpoint;
  return at;
}

void keep_position(Context& ctx, PositionDue due) {
  using std::chrono::milliseconds;
  PositionFile& positions = ctx.positions;
  const auto now = std::chrono::steady_clock::now();
  std::optional<Position> at;
  switch (due) {
    case PositionDue::kAfterCommit:
      // The output is synced every tenth of a second, a position written once a second.
      if (now - positions.handed_at() < milliseconds(100)) return;
      if (now - positions.written_at() >= milliseconds(1000)) at = position_now(ctx);
      break;
    case PositionDue::kSettled:
    case PositionDue::kStop:
      // Everything converted so far is on the disk before the daemon waits or stops, so a kill
      // while it waits converts nothing again.
      at = position_now(ctx);
      positions.settle();
      if (due == PositionDue::kSettled && at == positions.written()) return;
      ctx.errlog.sync();
      ctx.generations.current().sync();
      positions.write(*at, true);
      return;
  }
  if (at == positions.newest()) at.reset();
  positions.hand_over(at, ctx.generations.current(), ctx.errlog);
}

}  // namespace adcdf
