// ekadcdf-export: loads the daemon's CDF generations into CSV files, JSON Lines, SQLite or
// PostgreSQL, once each record, and with --follow keeps doing so as the daemon writes.
#include <getopt.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>

#include "convert/catalogue.h"
#include "export/exporter.h"
#include "export/metrics.h"
#include "export/target.h"

namespace {

using adcdf::exporter::ExportError;
using adcdf::exporter::Totals;
using Clock = std::chrono::steady_clock;

constexpr char kUsage[] =
    "Usage: ekadcdf-export [--csv DIR | --jsonl FILE|- | --sqlite FILE | --postgres CONNINFO]\n"
    "                      [--rejects FILE] [--follow] [--metrics FILE] BASE\n"
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
    "  --follow            keep loading what the daemon writes, every second, until stopped\n"
    "  --metrics FILE      write rows loaded per table, rejects and the time of the last\n"
    "                      commit for Prometheus (node exporter textfile) at start and after\n"
    "                      every run\n"
    "  --columns           print the columns of every record type and exit\n"
    "  --help, --version   print this text or the version and exit\n"
    "\n"
    "Exit status: 0 done, 1 error (nothing of the failed run is kept), 2 bad arguments.\n";

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

// The progress line, on a terminal only: records, megabytes and rate, at most four times a
// second.
class Progress {
 public:
  Progress() : shown_(isatty(STDERR_FILENO) != 0) {}
  void update(const Totals& run) {
    if (!shown_) return;
    const auto now = Clock::now();
    if (now - last_ < std::chrono::milliseconds(250)) return;
    last_ = now;
    Totals all = add(done_, run);
    std::fprintf(stderr, "\r%lld records  %.1f MB  %.1f MB/s\033[K",
                 static_cast<long long>(all.records), all.bytes / 1e6, all.bytes / 1e6 / seconds());
  }
  void finish(const Totals& run) {
    done_ = add(done_, run);
    if (shown_) std::fprintf(stderr, "\r\033[K");
  }
  const Totals& done() const { return done_; }
  double seconds() const {
    return std::chrono::duration<double>(Clock::now() - start_).count() + 1e-9;
  }

 private:
  static Totals add(Totals a, const Totals& b) {
    a.records += b.records;
    a.rejected += b.rejected;
    a.bytes += b.bytes;
    a.generations += b.generations;
    return a;
  }
  bool shown_;
  Clock::time_point start_ = Clock::now();
  Clock::time_point last_{};
  Totals done_;
};

}  // namespace

int main(int argc, char** argv) {
  enum { kCsv = 1, kJsonl, kSqlite, kPostgres, kRejects, kFollow, kColumns, kHelp, kVersion };
  enum { kMetrics = kVersion + 1 };
  static const option kOptions[] = {
      {"csv", required_argument, nullptr, kCsv},
      {"jsonl", required_argument, nullptr, kJsonl},
      {"sqlite", required_argument, nullptr, kSqlite},
      {"postgres", required_argument, nullptr, kPostgres},
      {"rejects", required_argument, nullptr, kRejects},
      {"follow", no_argument, nullptr, kFollow},
      {"columns", no_argument, nullptr, kColumns},
      {"help", no_argument, nullptr, kHelp},
      {"version", no_argument, nullptr, kVersion},
      {"metrics", required_argument, nullptr, kMetrics},
      {nullptr, 0, nullptr, 0},
  };
  int kind = 0;
  std::string where, rejects, metrics;
  bool follow = false;
  opterr = 0;
  for (int option; (option = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    switch (option) {
      case kCsv:
      case kJsonl:
      case kSqlite:
      case kPostgres:
        if (kind != 0) return usage_error("choose one of --csv, --jsonl, --sqlite, --postgres");
        kind = option;
        where = optarg;
        break;
      case kRejects:
        rejects = optarg;
        break;
      case kMetrics:
        metrics = optarg;
        break;
      case kFollow:
        follow = true;
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
  const std::string base = argv[optind];
  if (base.empty() || base.back() == '/') return usage_error("BASE names files, not a directory");
  if (kind == 0) {
    kind = kSqlite;
    where = base + ".sqlite";
  }

  struct sigaction action {};
  action.sa_handler = on_signal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);

  Progress progress;
  try {
    using namespace adcdf::exporter;
    Exporter exporter(base, rejects, follow, g_stop);
    CountingTarget target(kind == kCsv      ? csv_target(where)
                          : kind == kJsonl  ? jsonl_target(where)
                          : kind == kSqlite ? sqlite_target(where)
                                            : postgres_target(where));
    write_export_metrics(metrics, base, target, 0);
    try {
      for (;;) {
        Totals run = exporter.run(target, [&](const Totals& t) { progress.update(t); });
        progress.finish(run);
        write_export_metrics(metrics, base, target, progress.done().rejected);
        if (!follow) break;
        for (int tick = 0; tick < 10 && !g_stop; ++tick) {
          std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        if (g_stop) break;
      }
    } catch (const Interrupted&) {
      if (!follow) throw ExportError("interrupted; nothing of this run was kept");
    }
  } catch (const std::exception& error) {  // ExportError, a failed file operation, no memory
    progress.finish({});
    std::fprintf(stderr, "ekadcdf-export: %s\n", error.what());
    return 1;
  }

  const Totals& t = progress.done();
  const std::string into = kind == kPostgres ? "PostgreSQL"
                           : where == "-"    ? "standard output"
                                             : where;
  if (t.bytes == 0) {
    std::fprintf(stderr, "ekadcdf-export: nothing new for %s\n", into.c_str());
    return 0;
  }
  std::fprintf(stderr,
               "ekadcdf-export: %lld records, %.1f MB from %lld generations into %s in %.1f s "
               "(%.1f MB/s)",
               static_cast<long long>(t.records), t.bytes / 1e6,
               static_cast<long long>(t.generations), into.c_str(), progress.seconds(),
               t.bytes / 1e6 / progress.seconds());
  if (t.rejected > 0) {
    std::fprintf(stderr, "; %lld lines rejected%s%s", static_cast<long long>(t.rejected),
                 rejects.empty() ? "" : ", see ", rejects.c_str());
  }
  std::fprintf(stderr, "\n");
  return 0;
}
