#include "app/process_loop.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <string>

#include "stream/restart.h"
#include "support/clock.h"
#include "support/faults.h"
#include "test_support.h"

namespace adcdf {
namespace {

using testing::Harness;
using testing::TempDir;

// 2026-03-05 14:30:05, 16:00:00 and 2026-03-06 09:00:00 UTC.
constexpr long kT1 = 1772721005;
constexpr long kT2 = 1772726400;
constexpr long kNextDay = 1772787600;

std::string section(long time, const std::string& body = "subsystem 3\nuser sysadm\n") {
  return "subsystem-start\nhdr " + std::to_string(time) + "\n" + body + "\n";
}

std::string record(long time) {
  std::time_t t = time;
  struct tm u {};
  gmtime_r(&t, &u);
  char text[160];
  std::snprintf(text, sizeof text,
                "105,%d,%d,%d,%d,%d,%d,%ld,3,0,0,0,\"sysadm\",\"\",0,0,0,\"\",0,0,0,\"\",\"\"\n",
                u.tm_year, u.tm_mon + 1, u.tm_mday, u.tm_hour, u.tm_min, u.tm_sec, time);
  return text;
}

const std::string kHeader =
    "999,126,3,5,0,0,0,0,\"host\",0,0,0,\"\",\"\",0,0,0,\"\",0,0,0,\"\",\"\"\n";

class ProcessLoop : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    options.output_base = dir.file("b");
  }

  // A rotated generation's content after its header record, which carries today's date.
  static std::string after_header(const std::string& text) {
    EXPECT_TRUE(text.starts_with("999,")) << text;
    return text.substr(text.find('\n') + 1);
  }

  TempDir dir;
  Options options;
};

// Sections are converted and the generations rotate at a new day; the error file gets each
// section's skipped lines and each line between sections that names no section (one entry per
// line: an unknown section's header and keyword lines are unknown names too); NOTES sections are
// counted and passed over. The same with no section's output kept in memory (a limit of 0: the
// spill files, records written after the rotation their section asked for); -e: no error file.
TEST_F(ProcessLoop, ConvertsRotatesAndWritesSkippedLinesWithTheirSection) {
  const std::pair<size_t, bool> cases[] = {
      {PendingOutput::kSectionLimit, false}, {0, false}, {PendingOutput::kSectionLimit, true}};
  for (const auto& [limit, noerr] : cases) {
    SCOPED_TRACE(limit + noerr);
    std::filesystem::remove_all(dir.path());
    std::filesystem::create_directories(dir.path());
    options.noerr = noerr;
    options.debug = true;
    Harness h(section(kT1) + section(kT2, "subsystem 3\nuser sysadm\njunk line\n") +
                  "bogus\nhdr 1\n\nnotes-in\nx 1\n\nRouting\n" +
                  section(kNextDay, "subsystem 3\nuser sysadm\nstray\n"),
              options);
    h.ctx.output.section_limit = limit;
    adcdf_process_file(h.ctx);
    auto files = dir.files("b.");
    ASSERT_EQ(files.size(), noerr ? 3u : 4u);  // 000, 001, 002 and ERR
    EXPECT_EQ(files["b.002"], "");             // the empty generation created at start
    EXPECT_EQ(after_header(files["b.001"]), record(kT1) + record(kT2));
    EXPECT_EQ(after_header(files["b.000"]), record(kNextDay));
    EXPECT_EQ(files["b.ERR"], noerr ? ""
                                    : "Skipped line: 10\nLine = junk line\n\n"
                                      "Unknown audit file section: line 12\nbogus\n\n"
                                      "Unknown audit file section: line 13\nhdr 1\n\n"
                                      "Unknown audit file section: line 18\nRouting\n\n"
                                      "Skipped line: 23\nLine = stray\n\n");
    // The statistics the debug trace ends with.
    EXPECT_NE(h.trace.text().find("\nSubsystem-start        3\n"), std::string::npos);
    EXPECT_NE(h.trace.text().find("\nNOTES-in               1\n"), std::string::npos);
  }
}

// A reader beside the daemon, looking before each write and at the end (look()): each time the
// current generation shows another count of records, that count and the error file's entries.
struct LiveReader : FaultInjector {
  explicit LiveReader(const TempDir& d) : dir(d) { set_fault_injector(this); }
  ~LiveReader() override { set_fault_injector(nullptr); }
  int fail(const FileEvent& e, size_t*) override {
    if (e.op == FileOp::kWrite) look();
    return 0;
  }
  void look() {
    const std::string current = dir.read("b.000");
    const size_t records = testing::count_of(current, "\n") - current.starts_with("999,");
    if (records > 0 && (seen.empty() || seen.back().first != records)) {
      seen.push_back({records, testing::count_of(dir.read("b.ERR"), "\n\n")});
    }
  }
  const TempDir& dir;
  std::vector<std::pair<size_t, size_t>> seen;
};

// The clock the commit rule reads, in the test below: one millisecond per audit line read.
const Context* g_clock_ctx = nullptr;
std::chrono::steady_clock::time_point line_clock() {
  return std::chrono::steady_clock::time_point(std::chrono::milliseconds(g_clock_ctx->line_number));
}

// While catching up, sections are committed together once the oldest has waited 50 ms (here 50
// lines), and a section larger than memory is written on its own; either way a reader never sees
// a record before the error entries of the lines before it (each section has a skipped line).
TEST_F(ProcessLoop, CommitsWhenTheOldestSectionHasWaitedAndErrorEntriesComeFirst) {
  const int kSections = 30;
  std::string audit;
  for (int i = 0; i < kSections; ++i) audit += section(kT1 + i, "subsystem 3\nuser sysadm\njunk\n");
  const struct {
    const char* name;
    size_t limit;
    size_t per_commit;  // sections per commit, the last commit taking what is left
  } cases[] = {{"catching up", PendingOutput::kSectionLimit, 10}, {"large sections", 0, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir run_dir;
    options.output_base = run_dir.file("b");
    Harness h(audit, options);
    h.ctx.output.section_limit = c.limit;
    g_clock_ctx = &h.ctx;
    clock_for_tests = line_clock;
    LiveReader reader(run_dir);
    adcdf_process_file(h.ctx);
    clock_for_tests = nullptr;
    reader.look();
    std::vector<std::pair<size_t, size_t>> expected;
    for (size_t n = c.per_commit; n < kSections + c.per_commit; n += c.per_commit) {
      expected.push_back({std::min<size_t>(n, kSections), std::min<size_t>(n, kSections)});
    }
    EXPECT_EQ(reader.seen, expected);
  }
}

struct RestoreCase {
  const char* name;
  std::map<std::string, std::string> before;  // by suffix
  long checkpoint;
  std::array<int, 6> last;
  bool parse_message;
  bool cut_tail;  // bytes after the last line feed of b.000 are cut off
};

TEST_F(ProcessLoop, RestoreCheckpointFromNewestRecord) {
  const std::string r1 = record(kT1), r2 = record(kT2);
  const std::string hdr6 = "999,126,3,6,0,0,0,0,\"h\",0\n";
  const std::array<int, 6> d1{126, 3, 5, 14, 30, 5}, d2{126, 3, 5, 16, 0, 0}, zero{};
  const std::string torn = "105,126,3,5,17,0,0,1772730000,3";
  const RestoreCase cases[] = {
      {"nothing", {}, 0, zero, false, false},
      {"empty current", {{"000", ""}}, 0, zero, true, false},
      {"record", {{"000", kHeader + r1}}, kT1, d1, false, false},
      {"torn tail cut off", {{"000", kHeader + r1 + torn}}, kT1, d1, false, true},
      {"header and junk last", {{"000", kHeader + r1 + "junk\n" + hdr6}}, kT1, d1, false, false},
      {"seven values last", {{"000", r1 + "105,126,3,5,17,0,0\n"}}, kT1, d1, true, false},
      {"records older", {{"000", hdr6}, {"001", kHeader + r1 + r2}}, kT2, d2, false, false},
      {"header only", {{"000", hdr6}}, 0, {126, 3, 6, 0, 0, 0}, false, false},
      {"lowest older", {{"001", torn}, {"002", r1 + r2}, {"003", r1}}, kT2, d2, false, false},
      {"unparsable current", {{"000", "garbage\n"}, {"001", r1}}, kT1, d1, true, false},
      {"partial values stay", {{"000", "105,126,3\n"}}, 0, {126, 3, 0, 0, 0, 0}, true, false},
  };
  for (const RestoreCase& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir run_dir;
    options.output_base = run_dir.file("b");
    for (const auto& [suffix, text] : c.before) run_dir.write("b." + suffix, text);
    Harness h("", options);
    restore_checkpoint(h.ctx);
    EXPECT_EQ(h.ctx.checkpoint, c.checkpoint);
    const LocalTime& l = h.ctx.last;
    EXPECT_EQ((std::array<int, 6>{l.year, l.month, l.day, l.hour, l.minute, l.second}), c.last);
    EXPECT_EQ(h.trace.text(),
              c.parse_message ? "Unable to parse date and time on last line of .000 file.\n" : "");
    for (const auto& [suffix, text] : c.before) {
      std::string expected = text;
      if (suffix == "000" && c.cut_tail) expected.resize(expected.rfind('\n') + 1);
      EXPECT_EQ(run_dir.read("b." + suffix), expected) << suffix;
    }
  }
}

// A run stops, something may happen to the files, and a second run reads the grown audit file.
// With a valid position it resumes where the first stopped, cutting off whatever follows the
// recorded sizes, and the files equal those of one run; otherwise it falls back to the checkpoint
// (the error file emptied, the newest record's second converted again).
TEST_F(ProcessLoop, RestartResumesAtAValidPositionElseFallsBackToTheCheckpoint) {
  const std::string first_part = section(kT1) + section(kT2, "subsystem 3\nuser sysadm\njunk\n");
  const std::string added = section(kT2 + 60) + "bogus\n";
  const std::string junk = "Skipped line: 10\nLine = junk\n\n";
  const std::string bogus = "Unknown audit file section: line 17\nbogus\n\n";
  const std::string kBlanks(4095, '\n');
  // The records after the header record.
  const std::string once = record(kT1) + record(kT2) + record(kT2 + 60);
  const std::string again = record(kT1) + record(kT2) + record(kT2) + record(kT2 + 60);
  const struct {
    const char* name;
    std::function<void(const TempDir&)> meddle;
    std::string before_first, before_second;  // put before the audit file of each run
    bool noerr_before, noerr_after;
    std::string current, errors;
    int stop_after = -1;  // checks before the first run is stopped while it catches up
  } cases[] = {
      {"resumes", [](const TempDir&) {}, "", "", false, false, once, junk + bogus},
      {"without an error file, then with one", [](const TempDir&) {}, "", "", true, false, again,
       junk + bogus},
      {"with an error file, then without", [](const TempDir&) {}, "", "", false, true, once, junk},
      // Stopped after the first section, before the end of the file: it resumes at the second.
      {"stopped while catching up", [](const TempDir&) {}, "", "", false, false, once, junk + bogus,
       1},
      {"current generation shorter",
       [](const TempDir& d) { d.write("b.000", kHeader + record(kT1)); }, "", "", false, false,
       record(kT1) + record(kT1) + record(kT2) + record(kT2 + 60), junk + bogus},
      {"current generation replaced",
       [](const TempDir& d) {
         d.write("b.copy", d.read("b.000"));
         std::filesystem::rename(d.file("b.copy"), d.file("b.000"));
       },
       "", "", false, false, again, junk + bogus},
      {"error file missing", [](const TempDir& d) { std::filesystem::remove(d.file("b.ERR")); }, "",
       "", false, false, again, junk + bogus},
      {"error file shorter", [](const TempDir& d) { d.write("b.ERR", "x"); }, "", "", false, false,
       again, junk + bogus},
      // The position's audit file is nowhere: what it held beyond the position is reported lost.
      {"audit file begins otherwise", [](const TempDir&) {}, "", "\n", false, false, again,
       "Audit data lost after line 11 of \nSkipped line: 11\nLine = junk\n\nUnknown audit file "
       "section: line 18\nbogus\n\n"},
      // Only the audit file's 4096th byte tells it from the one the position names.
      {"audit file differs in its 4096th byte", [](const TempDir&) {}, kBlanks + "x\n",
       kBlanks + "y\n", false, false, again,
       "Audit data lost after line 4107 of \nUnknown audit file section: line 4096\ny\n\n"
       "Skipped line: 4106\nLine = junk\n\nUnknown audit file section: line 4113\nbogus\n\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir run_dir;
    options.output_base = run_dir.file("b");
    options.noerr = c.noerr_before;
    {
      Harness h(c.before_first + first_part, options);
      h.waiter.stop_after_checks(c.stop_after);
      adcdf_process_file(h.ctx);
    }
    c.meddle(run_dir);
    options.noerr = c.noerr_after;
    options.debug = true;
    Harness h(c.before_second + first_part + added, options);
    adcdf_process_file(h.ctx);
    options.debug = false;
    EXPECT_EQ(after_header(run_dir.read("b.000")), c.current);
    EXPECT_EQ(run_dir.read("b.ERR"), c.errors);
    EXPECT_EQ(h.trace.text().find("Resuming at line ") != std::string::npos, c.current == once);
    if (&c == &cases[0]) {
      EXPECT_NE(h.trace.text().find("Resuming at line 12 of the audit file\n"), std::string::npos);
    }
  }
}

// A section abandoned at a stop leaves no trace: at a wait for its next line (its skipped line in
// memory or spilled: a limit of 0), or inside one that goes on and on, whose end it does not await.
TEST_F(ProcessLoop, SectionAbandonedAtStopLeavesFilesUntouched) {
  const std::string current = kHeader + record(kT1);
  // A later day, so the section's header plans a rotation; skipped lines before the stop.
  const std::string start = "subsystem-start\nhdr " + std::to_string(kNextDay) + "\njunk\n";
  // The limit, the checks before the stop (-1: at the wait at the audit file's end), the audit.
  const std::tuple<size_t, int, std::string> cases[] = {
      {PendingOutput::kSectionLimit, -1, start},
      {0, -1, start},
      {0, 1, start + std::string(3000 * 1199, 'j')}};
  for (const auto& [limit, checks, audit] : cases) {
    SCOPED_TRACE(audit.size() + limit);
    dir.write("b.000", current);
    Harness h(audit, options, {"subsystem 3\n"});
    h.ctx.output.section_limit = limit;
    if (checks >= 0) h.waiter.stop_after_checks(checks);
    adcdf_process_file(h.ctx);
    EXPECT_EQ(dir.files("b."),
              (std::map<std::string, std::string>{{"b.000", current}, {"b.ERR", ""}}));
    EXPECT_EQ(h.input.offset() < static_cast<long long>(audit.size()), checks >= 0);
    EXPECT_FALSE(h.ctx.output.spilled());  // nothing of it left to be written with the next
  }
}

}  // namespace
}  // namespace adcdf
