#include "app/process_loop.h"

#include <string>

#include "convert/dispatch.h"
#include "record/record_writer.h"
#include "stream/checkpoint.h"

namespace adcdf {
namespace {

constexpr std::string_view kBlankLine = "\n";

void apply_prefix(Context& ctx, const PrefixValues& v) {
  int* targets[] = {nullptr,
                    &ctx.last.gilastyear,
                    &ctx.last.gilastmonth,
                    &ctx.last.gilastday,
                    &ctx.last.gilasthour,
                    &ctx.last.gilastmin,
                    &ctx.last.gilastsec};
  for (int i = 1; i < v.count && i < 7; ++i) *targets[i] = v.values[static_cast<size_t>(i)];
  if (v.count == 8) ctx.glGMTcheckpoint = v.values[7];
}

void print_statistics(Context& ctx) {
  const Counters& c = ctx.counters;
  ctx.trace.printf(
      "Statistics:\n\nSection name           Number\n-----------------------------\n"
      "Bulletin               %d\nDelivery               %d\nDesk-in                %d\n"
      "Desk-out               %d\nDirSync-in             %d\nDirSync-out            %d\n"
      "Fax-gateway            %d\nEkscan                 %d\nRequest-server         %d\n"
      "Routing                %d\nRouting-summary        %d\nSubsystem-start        %d\n"
      "Subsystem-stop         %d\nUnix-in                %d\nUnix-out               %d\n"
      "User-signoff           %d\nUser-signon            %d\nX400-in                %d\n"
      "X400-out               %d\nSMS-in                 %d\nSMS-out                %d\n"
      "NOTES-in               %d\nNOTES-out              %d\n\n",
      c.giBulletin, c.giDelivery, c.giDeskIn, c.giDeskOut, c.giDirSyncIn, c.giDirSyncOut,
      c.giFaxGateway, c.giEkscan, c.giRequestServer, c.giRouting, c.giRoutSummary, c.giSubsysStart,
      c.giSubsysStop, c.giUnixIn, c.giUnixOut, c.giUserSignoff, c.giUserSignon, c.gix400In,
      c.gix400Out, c.gixSMSIn, c.gixSMSOut, c.gixNOTESIn, c.gixNOTESOut);
}

void report_unknown_section(Context& ctx) {
  std::string entry = "Unknown audit file section: line ";
  RecordLine::append_number(entry, ctx.giLineno);
  entry.push_back('\n');
  entry.append(ctx.gszLine);
  entry.push_back('\n');
  if (ctx.trace.on()) ctx.trace.write(entry);
  ctx.errlog.write_all(entry);
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
    if (!last.complete()) {
      ctx.trace.write("Unable to parse date and time on last line of .000 file.\n");
    }
    apply_prefix(ctx, last);
    newest = last.complete() && !last.is_header() ? std::optional(last) : newest_record(file);
  } else {
    ctx.trace.printf("File does not exist: %s\n", current.c_str());
  }
  for (int generation = 1; !newest && generation < 100; ++generation) {
    std::string older = ctx.generations.name(generation);
    if (file_exists(older)) newest = newest_record(File::read_only(older));
  }
  if (newest) {
    ctx.last = LastDate{};
    apply_prefix(ctx, *newest);
  }
}

void commit_section(Context& ctx) {
  SectionOutput& section = ctx.section;
  // Error entries first: when writing them fails, the records are not written either, and a
  // restart converts the section again.
  if (!section.errors.empty()) ctx.errlog.write_all(section.errors);
  if (section.rotation) {
    ctx.generations.rotate(*section.rotation, section.records);
  } else if (!section.records.empty()) {
    ctx.generations.append(section.records);
  }
  section.clear();
}

int adcdf_process_file(Context& ctx) {
  TraceScope scope(ctx.trace, "adcdf_process_file");
  ctx.giLineno = 1;
  if (ctx.options.noerr) {
    ctx.errlog = File::create("/dev/null");
    ctx.trace.printf("Opened error file: /dev/null\n");
  } else {
    ctx.errlog = File::create(ctx.options.gszBaseFilename + ".ERR");
    ctx.trace.printf("Opened error file: %s\n", ctx.errlog.name().c_str());
  }
  ctx.trace.printf("Opening file: %s\n", ctx.generations.name(0).c_str());
  ctx.last = LastDate{};
  ctx.glGMTcheckpoint = 0;
  ctx.generations.recover();
  restore_checkpoint(ctx);
  ctx.trace.printf("Check point time: %d\n", static_cast<int>(ctx.glGMTcheckpoint));
  ctx.generations.open_current();

  while (ctx.input.keep_going()) {
    std::optional<std::string_view> line = ctx.input.read_line();
    ctx.gszLine = line ? *line : kBlankLine;
    if (ctx.trace.on()) {
      ctx.trace.printf("gszLine: %.*s\n", static_cast<int>(ctx.gszLine.size()), ctx.gszLine.data());
    }
    if (ctx.gszLine == kBlankLine) {
      ++ctx.giLineno;
      continue;
    }
    const SectionEntry* entry = find_section(ctx.gszLine);
    if (entry != nullptr) {
      try {
        entry->convert(ctx);
      } catch (const SectionAbandoned&) {
        ctx.section.clear();
        break;
      }
      commit_section(ctx);
    } else {
      report_unknown_section(ctx);
    }
    ++ctx.giLineno;
  }

  print_statistics(ctx);
  ctx.generations.close();
  ctx.errlog.close();
  scope.done();
  return 0;
}

}  // namespace adcdf
