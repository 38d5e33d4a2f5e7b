#include "stream/rotated_files.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "temp_dir.h"

namespace adcdf {
namespace {

using testing::TempDir;
namespace fs = std::filesystem;

// A file found truncated, then copied and truncated once more while its first copy was still
// being read: before it is read again from its start, the copy that begins as it began then is
// read from its own start, then every file rotated after that copy.
TEST(AuditFiles, TruncatedAgainBeforeItsStartIsReadReadsTheCopyThatBeginsAsItDid) {
  const std::string head = "h 1700000100\nuser a\n\n";
  const struct {
    const char* name;
    std::vector<std::pair<std::string, std::string>> rotated;  // oldest first: name, content
    std::string at_name;
    std::vector<std::string> expected;  // what is read before the file at the name, or "lost"
  } cases[] = {
      {"still begins as it did", {}, head + "more\n", {}},
      {"copied and truncated again", {{"audit.1", head + "rest\n"}}, "h 1700000300\n", {"audit.1"}},
      {"twice again",
       {{"audit.2", head + "rest\n"}, {"audit.1", "h 1700000200\n"}},
       "h 1700000300\n",
       {"audit.2", "audit.1"}},
      {"no copy left", {{"audit.1", "h 1700000000\n"}}, "h 1700000300\n", {"lost"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    auto when = fs::file_time_type::clock::now() - std::chrono::hours(1);
    for (const auto& [name, text] : c.rotated) {
      dir.write(name, text);
      fs::last_write_time(dir.file(name), when += std::chrono::minutes(1));
    }
    dir.write("audit", c.at_name);
    auto held = FileSource::open(dir.file("audit"));
    ASSERT_TRUE(held);
    ReadPlan plan = AuditFiles(dir.file("audit")).truncated_again(*held, head);
    std::vector<std::string> read;
    for (const NextRead& next : plan) {
      if (next.kind == NextRead::kRotated) read.push_back(fs::path(next.source->name()).filename());
      if (next.kind == NextRead::kLost) read.push_back("lost");
    }
    EXPECT_EQ(read, c.expected);
    EXPECT_TRUE(plan.empty() || plan.back().kind == NextRead::kSameFile);
  }
}

}  // namespace
}  // namespace adcdf
