#include "app/process_loop.h"

#include <chrono>
#include <cstdio>
#include <string>

#include "app/metrics.h"
#include "convert/sections.h"
#include "record/record_writer.h"
#include "stream/commit.h"
#include "stream/restart.h"
#include "stream/section_reader.h"
#include "support/notify.h"

namespace adcdf {
namespace {

void report_unknown_section(Context& ctx) {
  Buffer& errors = ctx.output.errors;
  const size_t from = errors.size();
  errors.append("Unknown audit file section: line ");
  append_number(errors, ctx.line_number);
  errors.push_back('\n');
  errors.append(ctx.line);
  errors.push_back('\n');
  ++ctx.metrics.errors.unknown_section;
  if (ctx.trace.on()) ctx.trace.write(errors.view().substr(from));
}

// A section whose audit file was replaced or truncated before its blank line arrived.
void report_cut_section(Context& ctx, int name_line) {
  std::string entry = "Incomplete section dropped at line ";
  append_number(entry, name_line);
  entry.push_back('\n');
  ctx.output.errors.append(entry);
  ++ctx.metrics.errors.dropped_section;
}

// Audit data the daemon could not read: one entry, and the same debug line.
void report_audit_trouble(Context& ctx, const AuditTrouble& trouble) {
  const std::string& name = ctx.options.audit_file;
  std::string entry;
  if (trouble.unreadable) {
    entry = "Audit file " + name + " cannot be read: " + *trouble.unreadable + "\n";
    ++ctx.metrics.errors.audit_unreadable;
  } else {
    ++ctx.metrics.errors.audit_data_lost;
    entry = "Audit data lost after line ";
    append_number(entry, trouble.after_line >= 0 ? trouble.after_line : ctx.line_number - 1);
    entry += " of " + name;
    if (trouble.lost >= 0) entry += ": " + std::to_string(trouble.lost) + " bytes";
    entry.push_back('\n');
  }
  ctx.output.errors.append(entry);
  if (ctx.trace.on()) ctx.trace.write(entry);
}

// What the service manager is told (see support/notify.h): ready once the run has started, then
// how far it has got, at most once a second, and that it stops.
class Progress {
 public:
  Progress(Context& ctx, const Counters& counters) : ctx_(ctx), metrics_(ctx, counters) {}

  void ready() {
    metrics_.write();
    notifier_.send("READY=1");
    status();
  }
  void update() {
    metrics_.write_when_due();
    if (!notifier_.active()) return;
    notifier_.ping_watchdog();
    if (std::chrono::steady_clock::now() - told_ >= std::chrono::seconds(1)) status();
  }
  void stopping() { notifier_.send("STOPPING=1"); }
  void stopped() { metrics_.write(); }

  int sections = 0;  // converted (or skipped under the checkpoint) in this run

 private:
  void status() {
    if (!notifier_.active()) return;
    char text[128];
    std::snprintf(text, sizeof text, "STATUS=%d sections converted, at line %d of the audit file",
                  sections, ctx_.handled.line);
    notifier_.send(text);
    told_ = std::chrono::steady_clock::now();
  }

  Context& ctx_;
  Notifier notifier_;
  MetricsFile metrics_;
  std::chrono::steady_clock::time_point told_;
};

// Converts the section whose name line is ctx.line. False when a stop abandoned it.
bool convert_section(Context& ctx, SectionConverter& converter, const SectionKind& kind) {
  const int name_line = ctx.line_number;
  ctx.output.begin_section();
  try {
    converter.convert(ctx, kind);
  } catch (const SectionAbandoned&) {
    // Not handled: the section leaves no trace, and a restart reads it again from its name line.
    ctx.output.drop_section();
    ctx.last = ctx.handled.last;
    return false;
  } catch (const SectionCut&) {
    ctx.output.drop_section();
    ctx.last = ctx.handled.last;
    report_cut_section(ctx, name_line);
    return true;
  }
  ctx.output.end_section();
  ctx.metrics.last_event = ctx.event.since_epoch;
  if (ctx.output.rotation) {
    rotate_for_section(ctx);
    ++ctx.metrics.rotations;
  }
  count_up(ctx.line_number);
  return true;
}

}  // namespace

void adcdf_process_file(Context& ctx) {
  TraceScope scope(ctx.trace, "adcdf_process_file");
  ctx.input.set_report([&ctx](const AuditTrouble& trouble) { report_audit_trouble(ctx, trouble); });
  start_run(ctx);
  SectionConverter converter;
  Progress progress(ctx, converter.counters());
  progress.ready();
  ctx.input.set_before_wait([&ctx, &progress] {
    commit_output(ctx);
    keep_position(ctx, PositionDue::kSettled);
    progress.update();
  });
  // Everything read of the old file has been handled: from here on, what is handled (and the
  // positions recorded) counts in the new file, from its start.
  ctx.input.set_at_new_file([&ctx] { ctx.mark_handled(); });

  while (ctx.input.keep_going()) {
    std::optional<std::string_view> line = ctx.input.read_line();
    ctx.line = line ? *line : kBlankLine;
    if (ctx.trace.on()) {
      ctx.trace.printf("gszLine: %.*s\n", static_cast<int>(ctx.line.size()), ctx.line.data());
    }
    if (!line) break;  // stopped at the end of the file: the empty read is not a line
    if (ctx.line == kBlankLine) {
      count_up(ctx.line_number);
    } else if (const SectionKind* kind = find_section(ctx.line)) {
      if (!convert_section(ctx, converter, *kind)) break;
      count_up(progress.sections);
      progress.update();
    } else {
      report_unknown_section(ctx);
      count_up(ctx.line_number);
    }
    ctx.mark_handled();
    commit_when_due(ctx);
  }

  progress.stopping();
  commit_output(ctx);
  keep_position(ctx, PositionDue::kStop);
  progress.stopped();
  if (ctx.trace.on()) ctx.trace.write(statistics_text(converter.counters()));
  ctx.input.set_before_wait(nullptr);
  ctx.input.set_at_new_file(nullptr);
  ctx.input.set_report(nullptr);
  ctx.generations.close();
  ctx.errlog.close();
  scope.done();
}

}  // namespace adcdf
