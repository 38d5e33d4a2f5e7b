#include "stream/section_reader.h"

#include <ctime>
#include <string>

#include "stream/context.h"
#include "stream/generations.h"
#include "support/signals.h"
#include "support/tokenizer.h"

namespace adcdf {
namespace {

constexpr std::string_view kBlankLine = "\n";

// Reads the section's remaining lines up to and including its blank line. A line that reads as
// empty (it starts with a NUL byte) ends the skip as the blank line would.
void skip_loop(Context& ctx) {
  while (ctx.line != kBlankLine) {
    if (ctx.next_section_line().empty()) ctx.line = kBlankLine;
  }
}

bool day_changed(const EventTime& event, const LocalTime& last) {
  return event.year > last.year || event.month > last.month || event.day > last.day;
}

}  // namespace

Header adcdf_get_generic(Context& ctx) {
  TraceScope scope(ctx.trace, "adcdf_get_generic");
  std::string_view line = ctx.next_section_line();
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
