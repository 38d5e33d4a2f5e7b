// The command line of the running binary: usage, the argument messages and their statuses, the
// default audit file and the argument summary.
#include "daemon_harness.h"

namespace daemon_test {
namespace {

// The usage text, as far as it shows that this is it (the conformance cases hold it whole).
const char kUsage[] = "Usage:\n\nekadcdf -a auditfile -b basecdffile [-g maxgen] [-x] [-d] [-e]\n";

struct BadCommandLine {
  std::vector<std::string> args;
  std::string message;
  int status;
  std::string out = "";
};

// (The conformance cases hold the usage, a missing audit file and a missing value after "-b".)
TEST(DaemonArgs, CommandLinesThatConvertNothingEndWithTheirMessageAndStatus) {
  const std::string kNoAudit = "\nAuditFile name missing.\n";
  const std::string kNoBase = "\nBaseFile name missing.\n";
  const std::string kCannotOpen = "\nFailed to open the audit file.\n";
  const BadCommandLine cases[] = {
      {{"-b", "cdf", "-a"}, kNoAudit, 2},
      {{"-a", "", "-b", "cdf"}, kNoAudit, 2},
      {{"-a", "audit", "-b", "", "-d"}, kNoBase, 2},
      // A repeated "-a" opens each file in turn: the second one is missing.
      {{"-a", "audit", "-a", "missing", "-b", "cdf"}, kCannotOpen, 2},
      // Alone, these two answer on standard output; among other arguments they are ignored.
      {{"--help"}, "", 0, kUsage},
      {{"--version"}, "", 0, "ekadcdf 0.1.0\n"},
      {{"--version", "-d"}, kCannotOpen, 2},
  };
  for (const auto& c : cases) {
    std::string shown;
    for (const auto& a : c.args) shown += "'" + a + "' ";
    SCOPED_TRACE(shown);
    Sandbox box;
    box.write("audit", "subsystem-start\nh 1700000000\n\n");
    Daemon daemon(box, c.args, {.home = box.root().string()});
    EXPECT_EQ(daemon.wait_exit(), c.status);
    EXPECT_TRUE(daemon.err().starts_with(c.message)) << daemon.err();
    EXPECT_TRUE(daemon.out().starts_with(c.out)) << daemon.out();
    EXPECT_EQ(daemon.err().empty(), c.message.empty());
    EXPECT_EQ(daemon.out().empty(), c.out.empty());
    // Nothing but the audit file is opened before the arguments are accepted.
    EXPECT_TRUE(box.files("").size() == 1) << "files were created";
  }
}

// The argument summary: the audit file by default under $HOME, unknown arguments ignored, "-x"
// keeping addresses as written, "-g" as parsed (not a number gives 0, negative values stay
// negative, 100 is the largest, with no value the default stays). With "--once" (anywhere) the
// daemon stops by itself at the end of the audit file, as if SIGTERM had come while it waited
// there: statistics, status 0, no "waiting..." line.
TEST(DaemonArgs, ArgumentSummaryAndOnceStopsAtTheEnd) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"-q", "junk", "-g", "500", "--once"}, "100"},
      {{"--once", "-g", "abc"}, "0"},
      {{"-g", "-3", "--once"}, "-3"},
      {{"--once", "-g"}, "7"}};
  for (const auto& [more, shown] : cases) {
    SCOPED_TRACE(shown);
    Sandbox box;
    fs::create_directories(box.root() / "logs");
    write_file(box.root() / "logs/audit", "request\nh 1700000000\noriginator ann/hq\n\n");
    std::vector<std::string> args = {"-b", "cdf", "-x", "-d"};
    args.insert(args.end(), more.begin(), more.end());
    Daemon daemon(box, args, {.home = box.root().string()});
    EXPECT_EQ(daemon.wait_exit(), 0);
    const std::string err = daemon.err();
    EXPECT_TRUE(
        err.starts_with("Current args:\n Auditfilename     = " + box.root().string() +
                        "/logs/audit\n Basefilename      = cdf\n Maxgenerations    = " + shown +
                        "\n Upshift addresses = No\n Debug mode        = On\n\n"
                        "<- adcdf_parse_args\n-> adcdf_init_vars\n"))
        << err;
    EXPECT_EQ(err.find("waiting..."), std::string::npos);
    EXPECT_NE(err.find("gszLine: \n\nStatistics:"), std::string::npos) << err;
    EXPECT_EQ(box.read("cdf.000"),
              header_record() +
                  "109,123,11,14,22,13,20,1700000000,0,0,0,0,\"ann/hq \",\" \",0,0,0,\" \",0,0,0,"
                  "\"\",\" \"\n");
    EXPECT_EQ(daemon.out(), "");
  }
}

}  // namespace
}  // namespace daemon_test
