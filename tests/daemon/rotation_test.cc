// Output generations through the running daemon: which files move, which are removed, and when
// a section starts a new generation.
#include "daemon_harness.h"

namespace daemon_test {
namespace {

using Files = std::map<std::string, std::string>;

// A subsystem-start record without keyword lines, after its prefix "105,<date>,<seconds>,".
std::string start(const std::string& prefix) {
  return "105," + prefix + ",0,0,0,0,\" \",\"\",0,0,0,\"\",0,0,0,\"\",\"\"\n";
}
std::string section(long seconds) {
  return "subsystem-start\nh " + std::to_string(seconds) + "\n\n";
}

const std::string kDay14 = start("123,11,14,9,0,0,1699952400");
const std::string kDay15 = start("123,11,15,1,0,0,1700010000");

struct RotationCase {
  std::string name;
  std::vector<std::string> options;
  Files before;
  std::string audit;
  Files after;  // "@H@" stands for the header record of a generation started today
  std::string tz = "UTC";
};

void PrintTo(const RotationCase& c, std::ostream* os) {
  *os << c.name;
}

class DaemonRotation : public ::testing::TestWithParam<RotationCase> {};

TEST_P(DaemonRotation, MovesTheGenerations) {
  const RotationCase& c = GetParam();
  Sandbox box;
  for (const auto& [name, content] : c.before) box.write(name, content);
  box.write("audit", c.audit);
  Files expected;
  for (auto [name, content] : c.after) {
    for (size_t at; (at = content.find("@H@")) != std::string::npos;)
      content.replace(at, 3, header_record(c.tz));
    expected[name] = content;
  }
  expected["cdf.ERR"] = "";
  std::vector<std::string> args = {"-a", "audit", "-b", "cdf", "-d"};
  args.insert(args.end(), c.options.begin(), c.options.end());
  Daemon daemon(box, args, {.tz = c.tz});
  EXPECT_TRUE(eventually([&] { return box.files() == expected; }));
  ASSERT_TRUE(daemon.wait_err("waiting...\n"));
  EXPECT_EQ(daemon.stop(), 0);
  EXPECT_EQ(box.files(), expected);
  EXPECT_EQ(daemon.out(), "");
  if (c.options.size() == 2 && std::atoi(c.options[1].c_str()) < 2) {
    // One generation only: the current one is removed and nothing is renamed.
    EXPECT_NE(daemon.err().find("Attempting to remove: cdf.000\n"), std::string::npos);
    EXPECT_EQ(daemon.err().find("Looking for"), std::string::npos);
    EXPECT_EQ(daemon.err().find("cdf.-"), std::string::npos);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DaemonRotation,
    ::testing::Values(
        // Default 7 generations: gaps stay gaps, every generation moves up by one.
        RotationCase{"Gaps",
                     {},
                     {{"cdf.000", kDay14}, {"cdf.003", "three\n"}, {"cdf.006", "six\n"}},
                     section(1700010000),
                     {{"cdf.000", "@H@" + kDay15}, {"cdf.001", kDay14}, {"cdf.004", "three\n"}}},
        RotationCase{"One",
                     {"-g", "1"},
                     {{"cdf.000", kDay14}, {"cdf.001", "one\n"}},
                     section(1700010000),
                     {{"cdf.000", "@H@" + kDay15}, {"cdf.001", "one\n"}}},
        RotationCase{"BelowOne",
                     {"-g", "-3"},
                     {{"cdf.000", kDay14}, {"cdf.001", "one\n"}},
                     section(1700010000),
                     {{"cdf.000", "@H@" + kDay15}, {"cdf.001", "one\n"}}},
        RotationCase{"Two",
                     {"-g", "2"},
                     {{"cdf.000", kDay14}, {"cdf.001", "one\n"}, {"cdf.002", "two\n"}},
                     section(1700010000),
                     {{"cdf.000", "@H@" + kDay15}, {"cdf.001", kDay14}, {"cdf.002", "two\n"}}},
        RotationCase{"Hundred",
                     {"-g", "100"},
                     {{"cdf.000", kDay14},
                      {"cdf.050", "fifty\n"},
                      {"cdf.098", "x98\n"},
                      {"cdf.099", "x99\n"}},
                     section(1700010000),
                     {{"cdf.000", "@H@" + kDay15},
                      {"cdf.001", kDay14},
                      {"cdf.051", "fifty\n"},
                      {"cdf.099", "x98\n"}}},
        // Year, month and day are compared one by one, each with a strict greater-than: a later
        // day of an earlier month rotates, a later hour of the same day does not.
        RotationCase{"FieldByField",
                     {},
                     {},
                     section(1699952400) + section(1697792400) + section(1698829200) +
                         section(1698832800) + section(1698742800),
                     {{"cdf.000", "@H@" + start("123,10,31,9,0,0,1698742800")},
                      {"cdf.001", "@H@" + start("123,11,1,9,0,0,1698829200") +
                                      start("123,11,1,10,0,0,1698832800")},
                      {"cdf.002", "@H@" + start("123,10,20,9,0,0,1697792400")},
                      {"cdf.003", "@H@" + kDay14},
                      {"cdf.004", ""}}},
        // Days are local days: 23:00 in Tokyo is the same day as the last record, midnight is
        // the next one.
        RotationCase{"LocalTime",
                     {},
                     {{"cdf.000", start("123,11,14,18,0,0,1699952400")}},
                     section(1699970400) + section(1699974000),
                     {{"cdf.000", "@H@" + start("123,11,15,0,0,0,1699974000")},
                      {"cdf.001", start("123,11,14,18,0,0,1699952400") +
                                      start("123,11,14,23,0,0,1699970400")}},
                     "JST-9"}),
    [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace daemon_test
