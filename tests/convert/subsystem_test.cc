#include <gtest/gtest.h>

#include "convert/converters.h"
#include "test_support.h"

namespace adcdf {
namespace {

using testing::Harness;

// A last date no section can be later than, so converting does not start a generation.
constexpr LastDate kNoRotation{1000, 13, 32, 0, 0, 0};
constexpr long kTime = 1364913005;  // 2013-04-02 14:30:05 UTC

struct Converted {
  std::string records;
  std::string errors;
};

// Converts one section with header time kTime and keyword lines `body` (ending with its blank
// line), as the first section of the file: its keyword lines are numbered from 3. Checks that
// the converter stops right after the blank line.
Converted convert(int (*converter)(Context&), const std::string& body) {
  ::setenv("TZ", "UTC", 1);
  ::tzset();
  Harness h("hdr " + std::to_string(kTime) + "\n" + body + "after\n");
  h.ctx.last = kNoRotation;
  h.ctx.giLineno = 1;
  EXPECT_EQ(h.convert(converter), 0);
  EXPECT_EQ(h.input.read_line().value_or("<end>"), "after\n");
  return {h.ctx.section.records, h.ctx.section.errors};
}

std::string rec(int type, const std::string& columns) {
  return std::to_string(type) + ",113,4,2,14,30,5,1364913005," + columns + "\n";
}

std::string skipped(int lineno, const std::string& line) {
  return "Skipped line: " + std::to_string(lineno) + "\nLine = " + line + "\n\n";
}

struct Case {
  const char* name;
  int (*converter)(Context&);
  int type;
  std::string body;
  std::string columns;  // 9 to 23
  std::string errors;
};

TEST(SubsystemConverters, Sections) {
  const std::string kEmpty = "0,0,0,0,\" \",\"\",0,0,0,\"\",0,0,0,\"\",\"\"";
  const Case cases[] = {
      {"worked example", adcdf_do_subsysstart, 105, "subsystem 3\nuser sysadm\n\n",
       "3,0,0,0,\"sysadm\",\"\",0,0,0,\"\",0,0,0,\"\",\"\"", ""},
      {"empty start", adcdf_do_subsysstart, 105, "\n", kEmpty, ""},
      {"empty stop", adcdf_do_subsysstop, 106, "\n", kEmpty, ""},
      {"stop accepts duration", adcdf_do_subsysstop, 106, "duration 5\n\n", kEmpty, ""},
      {"start skips duration", adcdf_do_subsysstart, 105, "user a\nduration 5\n\n",
       "0,0,0,0,\"a\",\"\",0,0,0,\"\",0,0,0,\"\",\"\"", skipped(4, "duration 5")},
      {"tab or letter after subsystem", adcdf_do_subsysstop, 106,
       "subsystem\t12\nsubsystems 13\nsubsystem 7\n\n",
       "7,0,0,0,\" \",\"\",0,0,0,\"\",0,0,0,\"\",\"\"",
       skipped(3, "subsystem\t12") + skipped(4, "subsystems 13")},
      {"any word starting with user", adcdf_do_subsysstart, 105, "username bob smith\n\n",
       "0,0,0,0,\"bob\",\"\",0,0,0,\"\",0,0,0,\"\",\"\"", ""},
      {"later line wins, values cut", adcdf_do_subsysstart, 105,
       "subsystem 1\nuser-id first\nsubsystem 123456\nuser abcdefghijklmnopqrstuvwxyz\n\n",
       "1234,0,0,0,\"abcdefghijklmnopqrs\",\"\",0,0,0,\"\",0,0,0,\"\",\"\"", ""},
      {"blank-only lines do not end the section", adcdf_do_subsysstart, 105,
       "bogus 1\n \nsubsystem 2\n\r\n\n", "2,0,0,0,\" \",\"\",0,0,0,\"\",0,0,0,\"\",\"\"",
       skipped(3, "bogus 1") + skipped(4, " ") + skipped(6, "\r")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Converted out = convert(c.converter, c.body);
    EXPECT_EQ(out.records, rec(c.type, c.columns));
    EXPECT_EQ(out.errors, c.errors);
  }
}

// Both converters count a section before its header is read, so one that lies before the
// checkpoint is counted but writes nothing.
TEST(SubsystemConverters, SectionBeforeCheckpointIsCountedAndConsumed) {
  for (auto converter : {adcdf_do_subsysstart, adcdf_do_subsysstop}) {
    Harness h("hdr 99\nsubsystem 3\nbogus\n\nnext\n");
    h.ctx.last = kNoRotation;
    h.ctx.glGMTcheckpoint = 100;
    EXPECT_EQ(h.convert(converter), 0);
    EXPECT_EQ(h.ctx.counters.giSubsysStart + h.ctx.counters.giSubsysStop, 1);
    EXPECT_EQ(h.ctx.section.records, "");
    EXPECT_EQ(h.ctx.section.errors, "");
    EXPECT_EQ(h.input.read_line().value_or("<end>"), "next\n");
  }
}

// A section still being written waits for its lines; one cut off by a stop is not counted.
TEST(SubsystemConverters, SectionAtEndOfFile) {
  ::setenv("TZ", "UTC", 1);
  ::tzset();
  Harness waits("hdr 1364913005\nsubsystem 3\n", {}, {"user sys", "adm\n", "\n"});
  waits.ctx.last = kNoRotation;
  EXPECT_EQ(waits.convert(adcdf_do_subsysstart), 0);
  EXPECT_EQ(waits.ctx.section.records,
            rec(105, "3,0,0,0,\"sysadm\",\"\",0,0,0,\"\",0,0,0,\"\",\"\""));

  Harness cut("hdr 1364913005\nsubsystem 3\n");
  cut.ctx.last = kNoRotation;
  EXPECT_THROW(cut.convert(adcdf_do_subsysstop), SectionAbandoned);
  EXPECT_EQ(cut.ctx.counters.giSubsysStop, 0);
}

}  // namespace
}  // namespace adcdf
