// Where each converter counts its section: before the header is read (a section that lies
// before the checkpoint is counted) or only once the section has been accepted. Either way a
// skipped section writes nothing and is read to its blank line.
#include <gtest/gtest.h>

#include "convert/convert_test_support.h"

namespace adcdf {
namespace {

using namespace testing;

TEST(Converters, SectionsBeforeTheCheckpointCountOnlyWhereCountedBeforeTheHeader) {
  const std::pair<const char*, bool> kinds[] = {
      {"Ekscan", true},       {"Subsystem-start", true}, {"Subsystem-stop", true},
      {"User-signon", false}, {"User-signoff", false},   {"Routing", true},
      {"Fax-gateway", true},  {"Delivery", true},        {"Request-server", true},
      {"Unix-in", true},      {"Unix-out", true},        {"Desk-in", false},
      {"Desk-out", false},    {"X400-in", false},        {"X400-out", true},
      {"SMS-in", false},      {"SMS-out", false},        {"Bulletin", true},
      {"DirSync-in", false},  {"DirSync-out", false}};
  for (const auto& [label, counts_skipped] : kinds) {
    SCOPED_TRACE(label);
    std::string_view name_line;
    for (const SectionKind& kind : section_kinds()) {
      if (kind.label == label) name_line = kind.name_line;
    }
    Harness h("hdr 99\nrecipient-to a\nbogus\n\nhdr 100\n\nnext\n");
    h.ctx.last = kNoRotation;
    h.ctx.glGMTcheckpoint = 100;
    EXPECT_EQ(h.convert(name_line), 0);
    EXPECT_EQ(h.counted(label), counts_skipped ? 1 : 0);
    EXPECT_EQ(h.ctx.output.records.view(), "");
    EXPECT_EQ(h.ctx.output.errors.view(), "");
    h.convert(name_line);
    EXPECT_EQ(h.counted(label), counts_skipped ? 2 : 1);
    EXPECT_EQ(h.input.read_line().value_or("<end>"), "next\n");
  }
}

}  // namespace
}  // namespace adcdf
