#include <gtest/gtest.h>

#include "convert/convert_test_support.h"
#include "convert/sections.h"

namespace adcdf {
namespace {

using namespace testing;

TEST(SubsystemConverters, Sections) {
  const std::string kEmpty = "0,0,0,0,\" \",\"\",0,0,0,\"\",0,0,0,\"\",\"\"";
  const Case cases[] = {
      {"worked example", "subsystem-start\n", 105, "subsystem 3\nuser sysadm\n\n",
       "3,0,0,0,\"sysadm\",\"\",0,0,0,\"\",0,0,0,\"\",\"\"", ""},
      {"empty start", "subsystem-start\n", 105, "\n", kEmpty, ""},
      {"empty stop", "subsystem-stop\n", 106, "\n", kEmpty, ""},
      {"stop accepts duration", "subsystem-stop\n", 106, "duration 5\n\n", kEmpty, ""},
      {"start skips duration", "subsystem-start\n", 105, "user a\nduration 5\n\n",
       "0,0,0,0,\"a\",\"\",0,0,0,\"\",0,0,0,\"\",\"\"", skipped(4, "duration 5")},
      {"tab or letter after subsystem", "subsystem-stop\n", 106,
       "subsystem\t12\nsubsystems 13\nsubsystem 7\n\n",
       "7,0,0,0,\" \",\"\",0,0,0,\"\",0,0,0,\"\",\"\"",
       skipped(3, "subsystem\t12") + skipped(4, "subsystems 13")},
      {"any word starting with user", "subsystem-start\n", 105, "username bob smith\n\n",
       "0,0,0,0,\"bob\",\"\",0,0,0,\"\",0,0,0,\"\",\"\"", ""},
      {"later line wins, values cut", "subsystem-start\n", 105,
       "subsystem 1\nuser-id first\nsubsystem 123456\nuser abcdefghijklmnopqrstuvwxyz\n\n",
       "1234,0,0,0,\"abcdefghijklmnopqrs\",\"\",0,0,0,\"\",0,0,0,\"\",\"\"", ""},
      {"blank-only lines do not end the section", "subsystem-start\n", 105,
       "bogus 1\n \nsubsystem 2\n\r\n\n", "2,0,0,0,\" \",\"\",0,0,0,\"\",0,0,0,\"\",\"\"",
       skipped(3, "bogus 1") + skipped(4, " ") + skipped(6, "\r")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Converted out = convert(c.section, c.body);
    EXPECT_EQ(out.records, rec(c.type, c.columns));
    EXPECT_EQ(out.errors, c.errors);
  }
}

// A section still being written waits for its lines; one cut off by a stop is not counted.
TEST(SubsystemConverters, SectionAtEndOfFile) {
  ::setenv("TZ", "UTC", 1);
  ::tzset();
  Harness waits("hdr 1364913005\nsubsystem 3\n", {}, {"user sys", "adm\n", "\n"});
  waits.ctx.last = kNoRotation;
  EXPECT_EQ(waits.convert("subsystem-start\n"), 0);
  EXPECT_EQ(waits.ctx.output.records.view(),
            rec(105, "3,0,0,0,\"sysadm\",\"\",0,0,0,\"\",0,0,0,\"\",\"\""));

  Harness cut("hdr 1364913005\nsubsystem 3\n");
  cut.ctx.last = kNoRotation;
  EXPECT_THROW(cut.convert("subsystem-stop\n"), SectionAbandoned);
  EXPECT_EQ(cut.counted("Subsystem-stop"), 0);
}

}  // namespace
}  // namespace adcdf
