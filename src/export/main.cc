// ekadcdf-export: loads the daemon's CDF generations into CSV files, JSON Lines, SQLite or
// PostgreSQL, once each record, and with --follow keeps doing so as the daemon writes.
#include <getopt.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "convert/catalogue.h"
#include "export/exporter.h"
#include "export/metrics.h"
#include "export/target.h"

namespace {

using adcdf::AdcdfError;
using adcdf::exporter::CountingTarget;
using adcdf::exporter::Target;
using adcdf::exporter::Totals;
using Clock = std::chrono::steady_clock;

constexpr char kUsage[] =
    "Usage: ekadcdf-export [--csv DIR | --jsonl FILE|- | --sqlite FILE | --postgres CONNINFO]\n"
    "                      [--rejects FILE] [--follow | --verify] [--metrics FILE] BASE\n"
    "       ekadcdf-export --columns | --help | --version\n";

constexpr char kHelpText[] =
    "Loads the CDF records that ekadcdf writes to BASE.000, BASE.001, ... (BASE is the daemon's\n"
    "-b value) into one table or file per record type, each record once: a second run loads\n"
    "only what the daemon wrote since the first.\n"
    "\n"
    "  --csv DIR           one CSV file per record type in DIR (created): cdf_101.csv, ...\n"
    "  --jsonl FILE|-      one JSON object per line, into FILE or to standard output\n"
    "  --sqlite FILE       one table per record type in the SQLite database FILE (created);\n"
    "                      the default, into BASE.sqlite\n"
    "  --postgres CONNINFO the same tables in PostgreSQL (\"dbname=cdf host=db.example.com\")\n"
    "  --rejects FILE      append the lines that cannot be split into their columns to FILE,\n"
    "                      each as <generation>:<line number>:<the line>\n"
    "  --follow            keep loading what the daemon writes, every second, until stopped;\n"
    "                      a database that goes away is waited for\n"
    "  --verify            compare the target with the generations, per generation, and exit\n"
    "  --metrics FILE      write rows loaded per table, rejects and the time of the last\n"
    "                      commit for Prometheus (node exporter textfile) at start and after\n"
    "                      every run\n"
    "  --columns           print the columns of every record type and exit\n"
    "  --help, --version   print this text or the version and exit\n"
    "\n"
    "Exit status: 0 done (with --verify: the target agrees), 1 error (nothing of the failed run\n"
    "is kept) or a difference, 2 bad arguments.\n";

constexpr auto kPoll = std::chrono::seconds(1);
constexpr auto kFirstPause = std::chrono::milliseconds(250);
constexpr auto kLongestPause = std::chrono::seconds(5);

volatile std::sig_atomic_t g_stop = 0;

void on_signal(int) {
  g_stop = 1;
}

int usage_error(const char* message) {
  std::fprintf(stderr, "ekadcdf-export: %s\n%s", message, kUsage);
  return 2;
}

void print_columns() {
  std::printf("type\tcolumn\tname\twritten\twidth\ttype\tconstant\n");
  for (const adcdf::RecordType& type : adcdf::record_catalogue()) {
    for (size_t i = 0; i < type.columns.size(); ++i) {
      const adcdf::RecordColumn& c = type.columns[i];
      std::string constant = !c.constant ? "-" : c.quoted ? "\"" + c.value + "\"" : c.value;
      std::printf("%d\t%zu\t%s\t%s\t%zu\t%s\t%s\n", type.type, i + 1, c.name.c_str(),
                  c.quoted ? "quoted" : "bare", c.width,
                  c.type == adcdf::ValueType::kInteger ? "integer" : "text", constant.c_str());
    }
  }
}

// Sleeps for `pause`, or less when a signal asks to stop.
void pause_for(Clock::duration pause) {
  const auto until = Clock::now() + pause;
  while (!g_stop && Clock::now() < until) {
    std::this_thread::sleep_for(
        std::min<Clock::duration>(std::chrono::milliseconds(100), until - Clock::now()));
  }
}

// The progress line, on a terminal only: records, megabytes and rate, at most four times a
// second. Without a terminal (under a service manager) and with --follow, a line per run that
// loaded something instead.
class Progress {
 public:
  Progress() : shown_(isatty(STDERR_FILENO) != 0) {}
  void journal(const Totals& run) const {
    if (shown_ || run.bytes == 0) return;
    std::fprintf(stderr,
                 "ekadcdf-export: loaded %lld records, %lld rejected, %.1f MB from %lld "
                 "generations\n",
                 static_cast<long long>(run.records), static_cast<long long>(run.rejected),
                 run.bytes / 1e6, static_cast<long long>(run.generations));
  }
  void update(const Totals& run) {
    if (!shown_) return;
    const auto now = Clock::now();
    if (now - last_ < std::chrono::milliseconds(250)) return;
    last_ = now;
    const Totals all = done_ + run;
    std::fprintf(stderr, "\r%lld records  %.1f MB  %.1f MB/s\033[K",
                 static_cast<long long>(all.records), all.bytes / 1e6, all.bytes / 1e6 / seconds());
  }
  void finish(const Totals& run) {
    done_ = done_ + run;
    if (shown_) std::fprintf(stderr, "\r\033[K");
  }
  const Totals& done() const { return done_; }
  double seconds() const {
    return std::chrono::duration<double>(Clock::now() - start_).count() + 1e-9;
  }

 private:
  bool shown_;
  Clock::time_point start_ = Clock::now();
  Clock::time_point last_{};
  Totals done_;
};

struct Options {
  enum Kind { kCsv = 1, kJsonl, kSqlite, kPostgres } kind{};
  std::string where;
  std::string rejects;
  std::string base;
  std::string metrics;
  bool follow = false;
  bool verify = false;
};

// Reads the command line into `o`; returns the exit status when there is nothing more to do.
std::optional<int> parse_arguments(int argc, char** argv, Options& o) {
  enum { kRejects = Options::kPostgres + 1, kFollow, kVerify, kColumns, kHelp, kVersion, kMetrics };
  static const option kOptions[] = {
      {"csv", required_argument, nullptr, Options::kCsv},
      {"jsonl", required_argument, nullptr, Options::kJsonl},
      {"sqlite", required_argument, nullptr, Options::kSqlite},
      {"postgres", required_argument, nullptr, Options::kPostgres},
      {"rejects", required_argument, nullptr, kRejects},
      {"follow", no_argument, nullptr, kFollow},
      {"verify", no_argument, nullptr, kVerify},
      {"columns", no_argument, nullptr, kColumns},
      {"help", no_argument, nullptr, kHelp},
      {"version", no_argument, nullptr, kVersion},
      {"metrics", required_argument, nullptr, kMetrics},
      {nullptr, 0, nullptr, 0},
  };
  opterr = 0;
  for (int option; (option = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    switch (option) {
      case Options::kCsv:
      case Options::kJsonl:
      case Options::kSqlite:
      case Options::kPostgres:
        if (o.kind != 0) return usage_error("choose one of --csv, --jsonl, --sqlite, --postgres");
        o.kind = static_cast<Options::Kind>(option);
        o.where = optarg;
        break;
      case kRejects:
        o.rejects = optarg;
        break;
      case kFollow:
        o.follow = true;
        break;
      case kVerify:
        o.verify = true;
        break;
      case kMetrics:
        o.metrics = optarg;
        break;
      case kColumns:
        print_columns();
        return 0;
      case kHelp:
        std::printf("%s\n%s", kUsage, kHelpText);
        return 0;
      case kVersion:
        std::printf("ekadcdf-export %s\n", EKADCDF_VERSION);
        return 0;
      default:
        return usage_error(
            (std::string("unknown option or missing value: ") + argv[optind - 1]).c_str());
    }
  }
  if (optind + 1 != argc) return usage_error(optind == argc ? "no BASE given" : "one BASE only");
  if (o.follow && o.verify) return usage_error("choose --follow or --verify");
  o.base = argv[optind];
  if (o.base.empty() || o.base.back() == '/') {
    return usage_error("BASE names files, not a directory");
  }
  if (o.kind == 0) {
    o.kind = Options::kSqlite;
    o.where = o.base + ".sqlite";
  }
  return std::nullopt;
}

void install_signal_handlers() {
  struct sigaction action {};
  action.sa_handler = on_signal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

std::unique_ptr<Target> open_target(const Options& o) {
  using namespace adcdf::exporter;
  switch (o.kind) {
    case Options::kCsv:
      return csv_target(o.where);
    case Options::kJsonl:
      return jsonl_target(o.where);
    case Options::kSqlite:
      return sqlite_target(o.where);
    case Options::kPostgres:
      return postgres_target(o.where);
  }
  return nullptr;
}

std::string target_label(const Options& o) {
  return o.kind == Options::kPostgres ? "PostgreSQL" : o.where == "-" ? "standard output" : o.where;
}

// Under --follow, a transient failure is waited out: a pause growing from a quarter of a second
// to 5 s between tries, a line when it starts and one when it is over.
class Retry {
 public:
  explicit Retry(std::string target) : target_(std::move(target)) {}
  void failed(const AdcdfError& error) {
    if (!failing_) {
      std::fprintf(stderr, "ekadcdf-export: %s; trying again until it works\n", error.what());
    }
    failing_ = true;
    pause_for(pause_);
    pause_ = std::min<Clock::duration>(pause_ * 2, kLongestPause);
  }
  void succeeded() {
    if (failing_) std::fprintf(stderr, "ekadcdf-export: %s works again\n", target_.c_str());
    failing_ = false;
    pause_ = kFirstPause;
  }

 private:
  std::string target_;
  bool failing_ = false;
  Clock::duration pause_ = kFirstPause;
};

// Under --follow, whether the failure of a run is waited out (the target is opened again at the
// next try); a signal ends the loading, without an error under --follow.
bool waited_out(const Options& o, const AdcdfError& error, CountingTarget& target, Retry& retry) {
  if (error.reason() == adcdf::kReasonInterrupted) {
    if (!o.follow) adcdf::exporter::raise_export_error("interrupted; nothing of this run was kept");
    return true;
  }
  if (!o.follow || error.reason() != adcdf::kReasonUnavailable) return false;
  target.attach(nullptr);
  retry.failed(error);
  return true;
}

// Loads once, or with --follow until a signal; throws AdcdfError for what ends the program.
void load(const Options& o, adcdf::exporter::Exporter& exporter, Progress& progress) {
  CountingTarget target;  // counts what each run commits, for the metrics, across reconnections
  Retry retry(target_label(o));
  bool said_waiting = false;
  adcdf::exporter::write_export_metrics(o.metrics, o.base, target, 0);
  do {
    try {
      if (!target.attached()) target.attach(open_target(o));
      const Totals run = exporter.run(target, [&](const Totals& t) { progress.update(t); });
      retry.succeeded();
      progress.finish(run);
      adcdf::exporter::write_export_metrics(o.metrics, o.base, target, progress.done().rejected);
      if (o.follow) progress.journal(run);
      if (run.no_generation && !said_waiting) {
        std::fprintf(stderr, "ekadcdf-export: no generation %s.000 yet; waiting for it\n",
                     o.base.c_str());
      }
      said_waiting = run.no_generation;
      if (o.follow) pause_for(kPoll);
    } catch (const AdcdfError& error) {
      if (!waited_out(o, error, target, retry)) throw;
    }
  } while (o.follow && !g_stop);
}

void print_summary(const Options& o, const Progress& progress) {
  const Totals& t = progress.done();
  const std::string into = target_label(o);
  if (t.bytes == 0) {
    std::fprintf(stderr, "ekadcdf-export: nothing new for %s\n", into.c_str());
    return;
  }
  std::fprintf(stderr,
               "ekadcdf-export: %lld records, %.1f MB from %lld generations into %s in %.1f s "
               "(%.1f MB/s)",
               static_cast<long long>(t.records), t.bytes / 1e6,
               static_cast<long long>(t.generations), into.c_str(), progress.seconds(),
               t.bytes / 1e6 / progress.seconds());
  if (t.rejected > 0) {
    std::fprintf(stderr, "; %lld lines rejected%s%s", static_cast<long long>(t.rejected),
                 o.rejects.empty() ? "" : ", see ", o.rejects.c_str());
  }
  std::fprintf(stderr, "\n");
}

// Prints, per generation, what the files hold and what the target holds; 0 when they agree.
int verify(const Options& o, adcdf::exporter::Exporter& exporter) {
  std::unique_ptr<Target> target = open_target(o);
  int differences = 0;
  const auto report = exporter.verify(*target);
  for (const adcdf::exporter::Verified& v : report) {
    const bool agree = v.found == v.expected;
    differences += agree ? 0 : 1;
    std::printf("%s: generation %lld, %lld records, %lld rows, %lld rejected", v.name.c_str(),
                static_cast<long long>(v.id), static_cast<long long>(v.records),
                static_cast<long long>(v.found.rows), static_cast<long long>(v.rejected));
    if (!agree) {
      std::printf(", DIFFERENT: %lld rows hold %lld of the %lld record lines",
                  static_cast<long long>(v.found.rows), static_cast<long long>(v.found.lines),
                  static_cast<long long>(v.expected.lines));
      if (v.found.lines == v.expected.lines) std::printf(", not the same ones");
    }
    std::printf("\n");
  }
  std::printf("%zu generations, %d differ\n", report.size(), differences);
  return differences == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (std::optional<int> status = parse_arguments(argc, argv, options)) return *status;
  install_signal_handlers();
  Progress progress;
  try {
    adcdf::exporter::Exporter exporter(options.base, options.verify ? "" : options.rejects,
                                       options.follow, g_stop);
    if (options.verify) return verify(options, exporter);
    load(options, exporter, progress);
  } catch (const std::exception& error) {  // AdcdfError, or no memory
    progress.finish({});
    std::fprintf(stderr, "ekadcdf-export: %s\n", error.what());
    return 1;
  }
  print_summary(options, progress);
  return 0;
}
