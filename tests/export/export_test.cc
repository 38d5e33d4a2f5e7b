// ekadcdf-export on a base the daemon wrote: every record type; quotes and commas in quoted
// values; a comma in a bare column that one split explains and one that several do; numbers
// that are not plain integers; bytes that are not UTF-8; a rotation between two runs. Each
// target is read back and must hold every record line once, byte for byte.
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "export/exporter.h"
#include "export_support.h"
#include "support/faults.h"

namespace export_test {
namespace {

using daemon_test::Daemon;
using daemon_test::Env;
using daemon_test::eventually;
using daemon_test::read_file;
using daemon_test::Sandbox;
namespace fs = daemon_test::fs;

// One section of each kind. The first routing section's originator ends in `","`, so its
// records split two ways; the dirsync-in command's comma could belong to any of four bare
// columns: those records are rejected. The unix-out reason's comma fits one column only.
const std::pair<const char*, const char*> kSections[] = {
    {"routing",
     "type 1\npriority 2\noriginator amb\",\"x\nua-message-id UA-0\nrecipient-to r/hq\n"
     "ack-req 1\nqueue LOCAL\nsubject ambiguous"},
    {"routing",
     "type 1\npriority 2\noriginator john smith/sales\nua-message-id UA-1\nrecipient-to mary\n"
     "ack-req 1\nqueue LOCAL\nrecipient-cc lee\nack-req 0\nqueue ekx400-gw\nmessage-size 007\n"
     "mta-message-id <M1@x>\nsubject Re: \"Q3\" figures, \"final\", say \"hi\"\npart-count 2"},
    {"delivery",
     "type 2\noriginator bob/hq\nua-message-id UA-3\nrecipient-to ann/hq\nnon-delivery-reason 3\n"
     "recipient-cc joe/hq\nauto-notify  34\nauto-file\ndelivered-count 8\r\nmta-message-id M3"},
    {"unix-out",
     "originator li brown\nua-message-id UA-4\ntype 4\nnon-delivery-reason 7,8\n"
     "recipient-to pat\nunix-message-id a\", \"b"},
    {"dirsync-in", "originator pat/hq\noperation 1\ncommand sync,all\nflags 0\nreload-posn 77193"},
    {"bulletin",
     "originator ann/hq\nbulletin-name caf\xe9 \xee\xbd\x81 \\\\ end\nmta-message-id M5"},
    {"ekscan", "user first/hq\nuser-messages 151\ntray 2 pending 24 4036872\nuser second"},
    {"user-signon", "user 123 Main Mail System jsmith smithj\ndesignate-user 754 pat/legal"},
    {"user-signoff", "user 123 Main Mail System\nsignoff-status 5\nduration 9288"},
    {"subsystem-start", "subsystem 3\nuser sysadm"},
    {"subsystem-stop", "subsystem 3\nuser sysadm"},
    {"fax", "originator mary/hq\nrecipient-to zoe\nretries 2\nsent-time 09,30\nrecipient-bcc m"},
    {"request", "originator ann/hq\nrequest-name list users\noriginator-admin-cap 3"},
    {"unix-in", "originator li brown\nua-message-id UA-6"},
    {"desk-in", "originator kim/ops\ntype 1\ndesk-message-id D-7"},
    {"desk-out", "originator kim/ops\nrecipient-to lee/ops\nrecipient-cc max/ops"},
    {"x400-in", "priority 1\noriginator C=US;A=ATT\nall-recips-non-deliv\nmta-message-id M8"},
    {"x400-out", "originator ann/hq\nmta_message-id M9\nrecipient-to a\nrecipient-cc b"},
    {"sms-in", "message-size 1234\nnon-delivery-reason 5"},
    {"sms-out", "message-size 99"},
    {"dirsync-out", "recipient pat jones\noperation 2\ncommand sync\nrequest-id R12"}};

bool rejected(const std::string& line) {
  return line.find("AMB\",\"") != std::string::npos || line.find("sync,all") != std::string::npos;
}

// `copies` rounds of every section on day `day` of January 2026 (UTC), from `minute` on.
std::string audit(int day, int copies, int minute = 0) {
  std::string text;
  long t = 1767225600 + day * 86400L + minute * 60L;
  for (int i = 0; i < copies; ++i) {
    for (const auto& [kind, body] : kSections) {
      text += std::string(kind) + "\naudit " + std::to_string(t += 60) + "\n" + body + "\n\n";
    }
  }
  return text;
}

// Two audit files in turn: the second is the first with more sections of its last day and of
// the day after, which starts a new generation.
const std::string kAudit[2] = {audit(0, 2) + audit(1, 2),
                               audit(0, 2) + audit(1, 2) + audit(1, 1, 600) + audit(2, 2)};

using Files = std::map<std::string, std::string>;

class Export : public ::testing::Test {
 protected:
  // The generations the daemon writes from each audit file, its host name in them.
  static void SetUpTestSuite() {
    Sandbox box;
    box.write("audit", kAudit[0]);
    Daemon daemon(box, {"-a", "audit", "-b", "cdf", "-d"});
    for (int phase = 0; phase < 2; ++phase) {
      if (phase == 1) box.append("audit", kAudit[1].substr(kAudit[0].size()));
      ASSERT_TRUE(daemon.wait_err("waiting...", phase + 1)) << daemon.err();
      generations_[phase] = box.files("cdf.0");
    }
    ASSERT_EQ(daemon.stop(), 0);
    ASSERT_EQ(box.read("cdf.ERR"), "");
    char name[256] = {};
    ::gethostname(name, sizeof name - 1);
    host_ = name;
    // Per round of sections: a routing record and its recipient's, and a dirsync-in record.
    ASSERT_EQ(lines(0, true).size(), 4 * 3u);
    ASSERT_EQ(lines(1, true).size(), 7 * 3u);
  }

  // Puts the generations of `phase` in `dir` as the daemon left them there.
  static std::string place(int phase, const fs::path& dir) {
    fs::create_directories(dir);
    for (const auto& entry : fs::directory_iterator(dir)) fs::remove(entry.path());
    for (const auto& [name, text] : generations_[phase]) daemon_test::write_file(dir / name, text);
    return (dir / "cdf").string();
  }

  // The lines a target holds after `phase`, as read_back() gives them; the lines rejected.
  static std::multiset<std::string> lines(int phase, bool rejects = false) {
    std::multiset<std::string> lines;
    for (const auto& [name, text] : generations_[phase]) {
      std::istringstream in(text);
      for (std::string line; std::getline(in, line);) {
        if (line.starts_with("999,")) continue;
        if (rejected(line) == rejects) lines.insert(rejects ? line : line + "|" + host_);
      }
    }
    return lines;
  }

  static Files generations_[2];
  static std::string host_;
};
Files Export::generations_[2];
std::string Export::host_;

// The file operations of a run in order. A commit of CSV or JSON Lines files is durable (the
// directory synced after the state file's rename) before a committed file grows: else a power
// cut could keep the grown files with the state before them, and the rows would be loaded again.
// With `tear`, the first write into an output file fails 7 bytes in, as a kill leaves it.
struct Recorder : adcdf::FaultInjector {
  explicit Recorder(bool tear) : tear(tear) { adcdf::set_fault_injector(this); }
  ~Recorder() override { adcdf::set_fault_injector(nullptr); }
  int fail(const adcdf::FileEvent& e, size_t* partial) override {
    if (tear && e.op == adcdf::FileOp::kWrite &&
        (e.name.ends_with(".csv") || e.name.ends_with(".jsonl"))) {
      tear = false;
      *partial = 7;
      return EIO;
    }
    const std::string name = e.to ? *e.to : e.name;
    if (e.op == adcdf::FileOp::kRename) committing = name.ends_with("ekadcdf-export-state");
    if (e.op == adcdf::FileOp::kSyncDirectory) committing = false;
    if (e.op == adcdf::FileOp::kOpen && !fs::path(name).filename().string().starts_with('.')) {
      EXPECT_FALSE(committing) << name << " grows before the commit is durable";
    }
    return 0;
  }
  bool tear;
  bool committing = false;
};

adcdf::exporter::Totals run(Kind kind, const std::string& where, const std::string& base,
                            const std::string& rejects = "", bool tear = false) {
  using namespace adcdf::exporter;
  static const volatile std::sig_atomic_t kNoStop = 0;
  auto t = kind == Kind::kCsv      ? csv_target(where)
           : kind == Kind::kJsonl  ? jsonl_target(where)
           : kind == Kind::kSqlite ? sqlite_target(where)
                                   : postgres_target(where);
  Recorder recorder(tear);
  return Exporter(base, rejects, false, kNoStop).run(*t, [](auto&) {});
}

struct Target {
  const char* name;
  Kind kind;
  std::string where;
  std::string option() const {
    return std::string("--") + (kind == Kind::kPostgres ? "postgres" : name);
  }
};

// The rows of the statement `sql` in a database target.
Rows query(const Target& t, const std::string& sql) {
  if (t.kind == Kind::kPostgres) return pg_query(t.where, sql);
  sqlite3* db;
  sqlite3_open(t.where.c_str(), &db);
  sqlite3_busy_timeout(db, 10000);
  Rows rows = sqlite_rows(db, sql);
  sqlite3_close(db);
  return rows;
}

// The exporter run as a process, as the daemon is.
const Env kExporter{.binary = EKADCDF_EXPORT_BINARY};

std::vector<Target> targets(const Sandbox& box) {
  std::vector<Target> all = {{"csv", Kind::kCsv, box.file("csv")},
                             {"jsonl", Kind::kJsonl, box.file("out.jsonl")},
                             {"sqlite", Kind::kSqlite, box.file("out.db")}};
  if (PostgresServer* pg = PostgresServer::get()) {
    all.push_back({"postgres", Kind::kPostgres, pg->fresh()});
  } else {
    ADD_FAILURE() << "PostgreSQL is not installed (scripts/install-deps.sh installs it)";
  }
  return all;
}

// Deletes the last row of the last generation in cdf_108 and doubles another of it (the files:
// drops the line before the last and writes the last twice), so the count stays the same.
void damage(const Target& t) {
  if (t.kind == Kind::kCsv || t.kind == Kind::kJsonl) {
    const std::string file = t.kind == Kind::kCsv ? t.where + "/cdf_108.csv" : t.where;
    const std::string text = read_file(file);
    const size_t last = text.rfind('\n', text.size() - 2) + 1;
    const size_t before = text.rfind('\n', last - 2) + 1;
    daemon_test::write_file(file, text.substr(0, before) + text.substr(last) + text.substr(last));
    return;
  }
  const std::string last = "(SELECT max(generation_id) FROM cdf_108)";
  query(t, "DELETE FROM cdf_108 WHERE generation_id = " + last +
               " AND line_number = (SELECT max(line_number) FROM cdf_108 WHERE generation_id = " +
               last + ")");
  query(t, "INSERT INTO cdf_108 SELECT * FROM cdf_108 WHERE generation_id = " + last + " LIMIT 1");
}

// Line `n` of `text`, from 1; empty past its end.
std::string line_of(const std::string& text, int64_t n) {
  std::istringstream in(text);
  std::string line;
  for (; n > 0 && std::getline(in, line); --n) {
  }
  return n == 0 ? line : "";
}

TEST_F(Export, EveryTargetHoldsEachRecordOnceAcrossARotation) {
  Sandbox box;
  for (const Target& t : targets(box)) {
    SCOPED_TRACE(t.name);
    const std::string rejects = box.file(std::string(t.name) + ".rejects");
    for (int phase = 0; phase < 2; ++phase) {
      const std::string base = place(phase, box.file("base"));
      if (phase == 1 && (t.kind == Kind::kCsv || t.kind == Kind::kJsonl)) {
        // Stopped inside its first append after the commit: the next run ends the append,
        // nothing twice.
        EXPECT_ANY_THROW(run(t.kind, t.where, base, rejects, true));
      }
      run(t.kind, t.where, base, rejects);
      if (phase == 0) {
        EXPECT_EQ(run(t.kind, t.where, base, rejects).records, 0) << "a second run adds nothing";
        // Cut back, as the daemon restarted after a crash does, and written again.
        const std::string current = read_file(base + ".000");
        fs::resize_file(base + ".000", current.size() - 10);
        EXPECT_EQ(run(t.kind, t.where, base, rejects).records, 0);
        daemon_test::write_file(base + ".000", current);
      }
      EXPECT_EQ(read_back(t.kind, t.where), lines(phase));
      // Each rejected line once, as <generation>:<line number>:<bytes>.
      std::istringstream in(read_file(rejects));
      std::multiset<std::string> listed;
      for (std::string line; std::getline(in, line);) {
        const size_t name_end = line.find(':'), number_end = line.find(':', name_end + 1);
        listed.insert(line.substr(number_end + 1));
        if (phase == 1) continue;  // the generations have moved since
        const std::string name = fs::path(line.substr(0, name_end)).filename().string();
        EXPECT_EQ(line_of(generations_[0].at(name), std::stoi(line.substr(name_end + 1))),
                  line.substr(number_end + 1));
      }
      EXPECT_EQ(listed, lines(phase, true));
    }
    // The databases derive the event time from column 8 and index it; a resumed generation keeps
    // its date.
    const bool lite = t.kind == Kind::kSqlite;
    const std::string wrong =
        "SELECT (SELECT count(*) FROM cdf_108 WHERE generation_date IS NULL OR event_time IS "
        "DISTINCT FROM " +
        std::string(lite ? "datetime(epoch_seconds, 'unixepoch')" : "to_timestamp(epoch_seconds)") +
        ") + (SELECT 1 - count(*) FROM " +
        (lite ? "sqlite_master WHERE name" : "pg_indexes WHERE indexname") +
        " = 'cdf_108_event_time')";
    EXPECT_EQ(t.kind == Kind::kCsv || t.kind == Kind::kJsonl ? Rows{{"0"}} : query(t, wrong),
              Rows{{"0"}});
    // --verify: every generation agrees; then a row deleted and another doubled.
    const std::string base = box.file("base/cdf");
    for (int damaged = 0; damaged < 2; ++damaged) {
      if (damaged == 1) damage(t);
      Daemon verify(box, {"--verify", t.option(), t.where, base}, kExporter);
      EXPECT_EQ(verify.wait_exit(), damaged) << verify.out() << verify.err();
      EXPECT_NE(verify.out().find(damaged ? "DIFFERENT" : ", 0 differ"), std::string::npos)
          << verify.out();
    }
  }
}

// A run killed while it writes leaves the target as it was; the next run loads everything once.
// Each target is caught in the middle: PostgreSQL with every row sent, waiting to record them in
// its state table, which another session has locked (rows and state committed apart would leave
// the rows); SQLite writing its log, with a reader querying every 100 ms throughout (none may
// fail), and refusing a run whose state cannot be recorded; CSV with its side files half written.
// The next run into PostgreSQL takes the same generations under three paths (a directory, a link
// to it, a copy as on another host) by three exporters at once, all held before their commit
// until all have started: they wait for each other on the content, not on a path.
TEST_F(Export, ARunKilledMidwayLeavesTheTargetAsItWasAndOneBaseUnderThreePathsLoadsOnce) {
  Sandbox box;
  const std::string small = place(0, box.file("small"));
  std::string big;
  for (int i = 0; i < 400; ++i) {
    for (const auto& [name, text] : generations_[1]) big += text;
  }
  // Over 4 MB of rows, then a new generation (of another host), numbered while they load.
  std::string next = generations_[1].at("cdf.000");
  next.replace(next.find(host_), host_.size(), "elsewhere");
  fs::create_directories(box.file("big"));
  daemon_test::write_file(box.file("big/cdf.001"), big);
  daemon_test::write_file(box.file("big/cdf.000"), next);
  fs::copy(box.file("big"), box.file("copy"));
  fs::create_directory_symlink(box.file("big"), box.file("alias"));
  size_t big_records = 400 * lines(1).size();
  std::istringstream in(next);
  for (std::string line; std::getline(in, line);) {
    big_records += !line.starts_with("999,") && !rejected(line);
  }

  for (const Target& t : targets(box)) {
    if (t.kind == Kind::kJsonl) continue;  // its files are committed as CSV's are
    SCOPED_TRACE(t.name);
    run(t.kind, t.where, small);
    const std::multiset<std::string> before = read_back(t.kind, t.where);
    const std::vector<std::string> args = {t.option(), t.where, box.file("big/cdf")};
    std::function<bool()> midway;
    std::unique_ptr<PGconn, void (*)(PGconn*)> locker(nullptr, PQfinish);
    std::atomic<bool> reading = false;
    std::atomic<int> refused = 0;
    std::thread reader;
    if (t.kind == Kind::kSqlite) {
      query(t,
            "CREATE TRIGGER planted BEFORE INSERT ON ekadcdf_export_state "
            "BEGIN SELECT RAISE(ABORT, 'planted'); END");
      Daemon failing(box, args, kExporter);
      EXPECT_EQ(failing.wait_exit(120), 1) << failing.err();
      EXPECT_EQ(read_back(t.kind, t.where), before) << "rows kept without their state";
      query(t, "DROP TRIGGER planted");
      reading = true;
      reader = std::thread([&] {
        sqlite3* db;
        sqlite3_open_v2(t.where.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
        sqlite3_busy_timeout(db, 1000);
        for (; reading; std::this_thread::sleep_for(std::chrono::milliseconds(100))) {
          refused += sqlite3_exec(db, "SELECT count(*) FROM cdf_101", nullptr, nullptr, nullptr);
        }
        sqlite3_close(db);
      });
      midway = [&] { return adcdf::testing::size_of(t.where + "-wal") > (1u << 20); };
    } else if (t.kind == Kind::kPostgres) {
      locker.reset(PQconnectdb(t.where.c_str()));
      PQclear(PQexec(locker.get(), "BEGIN; LOCK TABLE ekadcdf_export_state IN SHARE MODE"));
      midway = [&] {
        return pg_query(t.where, "SELECT count(*) FROM pg_locks WHERE NOT granted") != Rows{{"0"}};
      };
    } else {
      midway = [&] {
        return std::ranges::any_of(fs::directory_iterator(t.where), [](const auto& e) {
          return e.path().string().ends_with(".tmp");
        });
      };
    }
    {
      Daemon exporter(box, args, kExporter);
      EXPECT_TRUE(eventually(midway, 60, 0.0002));
      exporter.signal(SIGKILL);
      EXPECT_EQ(exporter.wait_exit(), 128 + SIGKILL) << "the run ended before it was killed";
    }
    locker.reset();
    EXPECT_EQ(read_back(t.kind, t.where), before);
    // SQLite: under --follow, another connection holding the write lock at first (waited out).
    sqlite3* writer = nullptr;
    std::vector<std::string> paths = {"big/cdf"};
    if (t.kind == Kind::kSqlite) {
      sqlite3_open(t.where.c_str(), &writer);
      EXPECT_EQ(sqlite3_exec(writer, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    } else if (t.kind == Kind::kPostgres) {
      paths = {"big/cdf", "alias/cdf", "copy/cdf"};
      locker.reset(PQconnectdb(t.where.c_str()));
      PQclear(PQexec(locker.get(), "BEGIN; LOCK TABLE ekadcdf_export_state IN SHARE MODE"));
    }
    std::vector<std::unique_ptr<Daemon>> again;
    for (const std::string& path : paths) {
      std::vector<std::string> a = {t.option(), t.where, box.file(path)};
      if (writer != nullptr) a.insert(a.begin(), "--follow");
      again.push_back(std::make_unique<Daemon>(box, a, kExporter));
    }
    if (locker) {
      EXPECT_TRUE(eventually([&] {
        return pg_query(t.where, "SELECT count(*) FROM pg_locks WHERE NOT granted") == Rows{{"3"}};
      }));
      locker.reset();
    }
    if (writer != nullptr) {
      EXPECT_TRUE(again[0]->wait_err("trying again", 1, 30)) << again[0]->err();
      sqlite3_close(writer);
      EXPECT_TRUE(again[0]->wait_err("ekadcdf-export: loaded ", 1, 120)) << again[0]->err();
      EXPECT_TRUE(again[0]->wait_err("works again")) << again[0]->err();
    }
    for (auto& d : again) EXPECT_EQ(writer ? d->stop() : d->wait_exit(120), 0) << d->err();
    EXPECT_EQ(read_back(t.kind, t.where).size(), before.size() + big_records);
    EXPECT_TRUE(t.kind != Kind::kCsv || !midway()) << "what the killed run left is cleared";
    reading = false;
    if (reader.joinable()) reader.join();
    EXPECT_EQ(refused, 0) << "queries refused while loading";
  }
}

// Under --follow: a base with no generation yet is said once and waited for; what the daemon
// writes is loaded as it comes, with a line per run that loads something (no terminal here),
// nothing while idle; a PostgreSQL server that restarts, or is away for 5 s, is waited for: the
// exporter stays up, says when it fails and when it works again, and the target ends exact.
TEST_F(Export, FollowLoadsAsTheDaemonWritesAndWaitsOutADatabaseRestartAndOutage) {
  ASSERT_NE(PostgresServer::get(), nullptr);
  Sandbox box;
  PostgresServer server;  // of its own: it goes away
  server.start();
  const std::string db = server.fresh();
  auto caught_up = [&] {  // the state's count of bytes loaded is the generations' size
    size_t size = 0;
    for (const auto& [name, text] : box.files("cdf.0")) size += text.size();
    const Rows sum = pg_query(db, "SELECT sum(bytes) FROM ekadcdf_export_state", true);
    return sum == Rows{{std::to_string(size)}};
  };
  Daemon exporter(box, {"--follow", "--postgres", db, "cdf"}, kExporter);
  ASSERT_TRUE(exporter.wait_err("no generation")) << exporter.err();
  box.write("audit", kAudit[0]);
  Daemon daemon(box, {"-a", "audit", "-b", "cdf", "-d"});
  ASSERT_TRUE(daemon.wait_err("waiting...")) << daemon.err();
  EXPECT_TRUE(eventually(caught_up, 30)) << exporter.err();
  EXPECT_EQ(read_back(Kind::kPostgres, db), lines(0));
  server.stop("fast");
  server.resume();
  EXPECT_TRUE(exporter.wait_err("works again", 1, 30)) << exporter.err();
  server.stop("fast");
  box.append("audit", kAudit[1].substr(kAudit[0].size()));  // a rotation, the server away
  EXPECT_TRUE(exporter.wait_err("trying again", 2, 30)) << exporter.err();
  std::this_thread::sleep_for(std::chrono::seconds(5));  // the outage itself
  server.resume();
  ASSERT_TRUE(daemon.wait_err("waiting...", 2)) << daemon.err();
  EXPECT_TRUE(eventually(caught_up, 30)) << exporter.err();
  EXPECT_EQ(read_back(Kind::kPostgres, db), lines(1));
  EXPECT_TRUE(exporter.wait_err("works again", 2)) << exporter.err();
  EXPECT_EQ(exporter.stop(), 0) << exporter.err();
  EXPECT_EQ(daemon.stop(), 0);
  const std::string said = exporter.err();
  EXPECT_EQ(daemon_test::count_of(said, "no generation"), 1u) << said;
  EXPECT_GE(daemon_test::count_of(said, "ekadcdf-export: loaded "), 2u) << said;
}

struct CommandLine {
  std::vector<std::string> args;
  int status;
  std::string message;  // in what it writes
  std::string binary = EKADCDF_EXPORT_BINARY;
};

TEST_F(Export, CommandLinesEndWithTheirStatusAndMessage) {
  Sandbox box;
  const std::string base = place(0, box.file("base"));
  fs::create_directories(box.file("fifo"));
  ASSERT_EQ(::mkfifo(box.file("fifo/cdf.000").c_str(), 0600), 0);
  // A line longer than any record between the records of a generation.
  const std::string& generation = generations_[0].begin()->second;
  const size_t second_line = generation.find('\n') + 1;
  const std::string long_line(3 << 20, 'x');
  const std::string long_base = place(0, box.file("long"));
  daemon_test::write_file(
      box.file("long/" + generations_[0].begin()->first),
      generation.substr(0, second_line) + long_line + "\n" + generation.substr(second_line));
  const std::string full = box.file("full.rejects"), db = box.file("full.db");
  daemon_test::write_file(full, std::string(1 << 20, '#') + "\n");
  const CommandLine cases[] = {
      // Rejected lines are kept before the run that leaves them behind commits: a rejects file
      // that cannot grow (past a file size limit) fails the run with the target unchanged (or the
      // next run would find nothing new, and list no rejected line); the next run writes them.
      {{"--fsize=" + std::to_string((1 << 20) + 100), EKADCDF_EXPORT_BINARY, "--sqlite", db,
        "--rejects", full, base},
       128 + SIGXFSZ,
       "",
       "/usr/bin/prlimit"},
      {{"--sqlite", db, "--rejects", full, base}, 0, "lines rejected, see"},
      {{"--help"}, 0, "Usage: ekadcdf-export"},
      {{"--version"}, 0, "ekadcdf-export "},
      {{"--columns"}, 0, "101\t24\tsubject\tquoted\t257\ttext\t-\n"},
      {{}, 2, "no BASE given"},
      {{"--csv", "a", "--sqlite", "b", base}, 2, "choose one of"},
      {{"--bogus", base}, 2, "unknown option"},
      {{"--sqlite"}, 2, "missing value"},
      {{base, base}, 2, "one BASE only"},
      {{"--sqlite", box.file("x.db"), box.file("nothing/cdf")}, 1, "cannot read the directory"},
      {{"--sqlite", box.file("x.db"), box.file("base/none")}, 1, "no generations"},
      {{"--postgres", "host=/nonexistent", base}, 1, "PostgreSQL: cannot connect"},
      {{"--csv", "/proc/no", base}, 1, "cannot create the directory /proc/no"},
      {{"--rejects", "/proc/no", base}, 1, "cannot open /proc/no"},
      {{"--sqlite", box.file("x.db"), box.file("fifo/cdf")}, 1, "cdf.000 is not a regular file"},
      {{"--follow", box.file("fifo/cdf")}, 1, "cdf.000 is not a regular file"},
      {{"--verify", "--jsonl", "-", base}, 1, "standard output keeps nothing to verify"},
      {{"--follow", "--verify", base}, 2, "choose --follow or --verify"},
      {{"--jsonl", box.file("long.jsonl"), "--rejects", box.file("long.rejects"), long_base},
       0,
       "lines rejected"},
      {{base}, 0, "into " + base + ".sqlite"},
  };
  Env env;
  for (const CommandLine& c : cases) {
    env.binary = c.binary;
    Daemon exporter(box, c.args, env);
    EXPECT_EQ(exporter.wait_exit(), c.status) << c.message;
    EXPECT_NE((exporter.out() + exporter.err()).find(c.message), std::string::npos)
        << exporter.out() << exporter.err();
  }
  EXPECT_EQ(read_back(Kind::kSqlite, db), lines(0));
  EXPECT_EQ(daemon_test::count_of(read_file(full), "\n"), 1 + lines(0, true).size());
  // The long line is rejected whole, with its line number; the records after it are loaded.
  const std::string listed = read_file(box.file("long.rejects"));
  EXPECT_NE(listed.find(":2:" + long_line + "\n"), std::string::npos);
  EXPECT_EQ(read_back(Kind::kJsonl, box.file("long.jsonl")), lines(0));
  // JSON Lines to standard output: every record, nothing remembered.
  for (int i = 0; i < 2; ++i) {
    Daemon exporter(box, {"--jsonl", "-", base}, kExporter);
    EXPECT_EQ(exporter.wait_exit(), 0);
    std::string out = exporter.out();
    EXPECT_EQ(static_cast<size_t>(std::count(out.begin(), out.end(), '\n')), lines(0).size());
  }
}

// The ctest fixture that starts and stops the server the exporter's tests share, in the
// directory EKADCDF_TEST_POSTGRES names (CMakeLists.txt registers them).
TEST(PostgresFixture, DISABLED_Start) {
  const std::string dir = std::getenv("EKADCDF_TEST_POSTGRES");
  const std::string stop = std::string(POSTGRES_BIN) + "/pg_ctl -D " + dir + "/data -m immediate";
  std::system((stop + " stop >/dev/null 2>&1").c_str());  // one a killed run left behind
  fs::remove_all(dir);
  PostgresServer(dir).start();
}

TEST(PostgresFixture, DISABLED_Stop) {
  const std::string dir = std::getenv("EKADCDF_TEST_POSTGRES");
  // Already stopped: nothing to do (ctest --repeat runs the cleanup again on its own).
  if (fs::exists(dir + "/data")) PostgresServer(dir).stop("immediate");
  fs::remove_all(dir);
}

}  // namespace
}  // namespace export_test
