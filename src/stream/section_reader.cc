#include "stream/section_reader.h"

#include <unistd.h>

#include <ctime>
#include <string>

#include "stream/commit.h"
#include "stream/header_record.h"
#include "support/signals.h"
#include "support/tokenizer.h"

namespace adcdf {
namespace {

// Reads the section's remaining lines up to and including its blank line. A line that reads as
// empty (it starts with a NUL byte) ends the skip as the blank line would.
void skip_loop(Context& ctx) {
  while (ctx.line != kBlankLine) {
    if (next_section_line(ctx).empty()) ctx.line = kBlankLine;
  }
}

bool day_changed(const EventTime& event, const LocalTime& last) {
  return event.year > last.year || event.month > last.month || event.day > last.day;
}

// Sets the header record (today's date, this host) of the rotation the section starts.
void adcdf_writeheaderrec(Context& ctx) {
  TraceScope scope(ctx.trace, "adcdf_writeheaderrec");
  char host[kHeaderHostWidth + 1] = {};
  ::gethostname(host, kHeaderHostWidth);
  ctx.output.rotation->header = header_record(std::time(nullptr), host);
  scope.done();
}

// Plans a rotation for the section in hand, with its header record.
void adcdf_rename_files(Context& ctx) {
  TraceScope scope(ctx.trace, "adcdf_rename_files");
  // What the sections before this one produced belongs in the generation that is about to move.
  commit_output(ctx);
  ctx.output.rotation = ctx.generations.plan(ctx.trace);
  adcdf_writeheaderrec(ctx);
  scope.done();
}

}  // namespace

std::string_view next_section_line(Context& ctx) {
  // A long section does not hold back the sections completed before it.
  count_up(ctx.line_number);
  if ((ctx.line_number & 1023) == 0) {
    commit_when_late(ctx);
    // Nor does it hold back a stop when it does not end: it is abandoned as at a wait.
    if (!ctx.input.keep_going()) throw SectionAbandoned{};
  }
  ctx.line = ctx.input.read_section_line();
  return ctx.line;
}

Header adcdf_get_generic(Context& ctx) {
  TraceScope scope(ctx.trace, "adcdf_get_generic");
  std::string_view line = next_section_line(ctx);
  if (line.empty() || line == kBlankLine) return Header::kSkip;

  Tokenizer words(line);
  words.next(" ");
  std::optional<std::string_view> pstr = words.next(" ");
  if (ctx.trace.on()) {
    std::string shown = pstr ? std::string(*pstr) : std::string("(null)");
    ctx.trace.printf("pstr = %s\n", shown.c_str());
  }
  if (!pstr) {
    skip_loop(ctx);
    return Header::kSkip;
  }

  std::time_t ldate = parse_long(*pstr);
  ctx.trace.printf("ldate = %ld\n", static_cast<long>(ldate));
  struct tm ptime {};
  if (localtime_r(&ldate, &ptime) == nullptr) {
    skip_loop(ctx);
    return Header::kSkip;
  }
  ctx.event.year = ptime.tm_year;
  ctx.event.month = ptime.tm_mon + 1;
  ctx.event.day = ptime.tm_mday;
  ctx.event.hour = ptime.tm_hour;
  ctx.event.minute = ptime.tm_min;
  ctx.event.second = ptime.tm_sec;
  ctx.event.since_epoch = static_cast<long>(ldate);

  // A SIGUSR1 since the last header: forget the last date, so this section starts a new
  // generation unless it is skipped.
  if (new_generation_requested) {
    new_generation_requested = 0;
    ctx.last = LocalTime{};
  }

  // A section before the checkpoint is in the output already: it leaves the last date as it
  // was, so it cannot set the day back and make the next section start a generation again.
  if (ctx.event.since_epoch < ctx.checkpoint) {
    skip_loop(ctx);
    scope.done();
    return Header::kSkip;
  }
  if (day_changed(ctx.event, ctx.last)) adcdf_rename_files(ctx);
  ctx.last = ctx.event;
  scope.done();
  return Header::kConvert;
}

}  // namespace adcdf
