#include <gtest/gtest.h>

#include "convert/converters.h"
#include "test_support.h"

namespace adcdf {
namespace {

using testing::Harness;

// A last date no section can be later than, so converting does not start a generation.
constexpr LastDate kNoRotation{1000, 13, 32, 0, 0, 0};

TEST(SubsystemConverters, WorkedExampleRecord) {
  ::setenv("TZ", "UTC", 1);
  ::tzset();
  Harness h("hdr 1364913005\nsubsystem 3\nuser sysadm\n\n");
  h.ctx.last = kNoRotation;
  EXPECT_EQ(h.convert(adcdf_do_subsysstart), 0);
  EXPECT_EQ(h.ctx.section.records,
            "105,113,4,2,14,30,5,1364913005,3,0,0,0,\"sysadm\",\"\",0,0,0,\"\",0,0,0,\"\",\"\"\n");
  EXPECT_EQ(h.ctx.counters.giSubsysStart, 1);
}

}  // namespace
}  // namespace adcdf
