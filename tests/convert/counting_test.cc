// Where each converter counts its section: before the header is read (a section that lies
// before the checkpoint is counted) or only once the section has been accepted. Either way a
// skipped section writes nothing and is read to its blank line.
#include <gtest/gtest.h>

#include "convert/convert_test_support.h"
#include "convert/converters.h"

namespace adcdf {
namespace {

using namespace testing;

TEST(Converters, CountingPoint) {
  struct Row {
    const char* name;
    int (*converter)(Context&);
    int Counters::*counter;
    bool counts_skipped;
  };
  const Row rows[] = {
      {"ekscan", adcdf_do_ekscan, &Counters::giEkscan, true},
      {"subsystem-start", adcdf_do_subsysstart, &Counters::giSubsysStart, true},
      {"subsystem-stop", adcdf_do_subsysstop, &Counters::giSubsysStop, true},
      {"user-signon", adcdf_do_usersignon, &Counters::giUserSignon, false},
      {"user-signoff", adcdf_do_usersignoff, &Counters::giUserSignoff, false},
      {"routing", adcdf_do_routing, &Counters::giRouting, true},
      {"fax", adcdf_do_faxgateway, &Counters::giFaxGateway, true},
      {"delivery", adcdf_do_delivery, &Counters::giDelivery, true},
      {"request", adcdf_do_requestserver, &Counters::giRequestServer, true},
      {"unix-in", adcdf_do_unixin, &Counters::giUnixIn, true},
      {"unix-out", adcdf_do_unixout, &Counters::giUnixOut, true},
      {"desk-in", adcdf_do_deskin, &Counters::giDeskIn, false},
      {"desk-out", adcdf_do_deskout, &Counters::giDeskOut, false},
      {"x400-in", adcdf_do_x400in, &Counters::gix400In, false},
      {"x400-out", adcdf_do_x400out, &Counters::gix400Out, true},
      {"sms-in", adcdf_do_smsin, &Counters::gixSMSIn, false},
      {"sms-out", adcdf_do_smsout, &Counters::gixSMSOut, false},
      {"bulletin", adcdf_do_bulletin, &Counters::giBulletin, true},
      {"dirsync-in", adcdf_do_dirsyncin, &Counters::giDirSyncIn, false},
      {"dirsync-out", adcdf_do_dirsyncout, &Counters::giDirSyncOut, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Harness h("hdr 99\nrecipient-to a\nbogus\n\nhdr 100\n\nnext\n");
    h.ctx.last = kNoRotation;
    h.ctx.glGMTcheckpoint = 100;
    EXPECT_EQ(h.convert(row.converter), 0);
    EXPECT_EQ(h.ctx.counters.*row.counter, row.counts_skipped ? 1 : 0);
    EXPECT_EQ(h.ctx.output.records.view(), "");
    EXPECT_EQ(h.ctx.output.errors.view(), "");
    h.convert(row.converter);
    EXPECT_EQ(h.ctx.counters.*row.counter, row.counts_skipped ? 2 : 1);
    EXPECT_EQ(h.input.read_line().value_or("<end>"), "next\n");
  }
}

}  // namespace
}  // namespace adcdf
