// What the exporter tests share: a PostgreSQL server of their own, and reading every target back
// into the CDF lines its rows came from.
#pragma once

#include <libpq-fe.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>

#include "convert/catalogue.h"
#include "daemon/daemon_harness.h"
#include "export/target.h"
#include "export/values.h"

namespace export_test {

using Rows = std::vector<std::vector<std::string>>;

// The result of `sql` (NULL reads as an empty string); nothing when it fails, which only
// `may_fail` allows.
inline Rows pg_query(const std::string& conninfo, const std::string& sql, bool may_fail = false) {
  PGconn* conn = PQconnectdb(conninfo.c_str());
  PGresult* r = PQexec(conn, sql.c_str());
  const bool ok = PQresultStatus(r) == PGRES_TUPLES_OK || PQresultStatus(r) == PGRES_COMMAND_OK;
  EXPECT_TRUE(ok || may_fail) << sql << ": " << PQerrorMessage(conn);
  Rows rows(ok ? static_cast<size_t>(PQntuples(r)) : 0);
  for (size_t i = 0; i < rows.size(); ++i) {
    for (int j = 0; j < PQnfields(r); ++j) rows[i].emplace_back(PQgetvalue(r, int(i), j));
  }
  PQclear(r);
  PQfinish(conn);
  return rows;
}

// A cluster in a directory of its own, run by an unprivileged account (nobody when the tests run
// as root, since the server refuses root) and reached through a Unix socket there only.
class PostgresServer {
 public:
  // The server the tests share: the one the ctest fixture started in the directory that
  // EKADCDF_TEST_POSTGRES names, else one of this process's own; null when PostgreSQL is not
  // installed.
  static PostgresServer* get() {
    static std::unique_ptr<PostgresServer> server = [] {
      const char* shared = std::getenv("EKADCDF_TEST_POSTGRES");
      ::setenv("PGDATESTYLE", "SQL, DMY", 1);  // sessions whose dates do not read as ISO ones
      if (std::string(POSTGRES_BIN).empty()) return std::unique_ptr<PostgresServer>();
      if (shared != nullptr) return std::make_unique<PostgresServer>(shared);
      auto own = std::make_unique<PostgresServer>();
      own->start();
      return own;
    }();
    return server.get();
  }

  // A server of its own in a scratch directory, stopped at the end; start() starts it.
  PostgresServer() : scratch_(std::make_unique<adcdf::testing::TempDir>()) {
    dir_ = scratch_->path().string();
  }
  // The server in `dir`, started and stopped by someone else.
  explicit PostgresServer(std::string dir) : dir_(std::move(dir)) {}
  ~PostgresServer() {
    if (scratch_) stop("immediate");
  }

  // Makes a cluster in the directory (anew) and starts it.
  void start() {
    daemon_test::fs::create_directories(dir_);
    if (::geteuid() == 0 && ::chown(dir_.c_str(), 65534, 65534) != 0) ADD_FAILURE() << "chown";
    run("/initdb -D " + dir_ + "/data -U postgres --auth=trust -E UTF8 --no-locale -N");
    resume();
  }
  // Starts the cluster made by start() again.
  void resume() {
    run("/pg_ctl -D " + dir_ + "/data -l " + dir_ + "/log -w start -o \"-c listen_addresses='' " +
        "-c unix_socket_directories=" + dir_ + " -c fsync=off\"");
  }
  // Stops it: "fast" ends the sessions, "immediate" is a crash.
  void stop(const std::string& mode) {
    run("/pg_ctl -D " + dir_ + "/data -m " + mode + " -w stop");
  }

  std::string conninfo(const std::string& database = "postgres") const {
    return "host=" + dir_ + " user=postgres dbname=" + database;
  }
  // The conninfo of a new, empty database, named apart from other processes' databases.
  std::string fresh() {
    const std::string name = "db" + std::to_string(::getpid()) + "_" + std::to_string(++databases_);
    pg_query(conninfo(), "CREATE DATABASE " + name);
    return conninfo(name);
  }

 private:
  void run(const std::string& command) const {
    const std::string as_owner = ::geteuid() == 0 ? "runuser -u nobody -- " : "";
    ASSERT_EQ(
        std::system((as_owner + POSTGRES_BIN + command + " >>" + dir_ + "/setup.log 2>&1").c_str()),
        0)
        << command << ", see " << dir_ << "/setup.log";
  }
  std::unique_ptr<adcdf::testing::TempDir> scratch_;
  std::string dir_;
  int databases_ = 0;
};

// The bytes a target's text stands for: each U+EF00 + b is the byte b.
inline std::string original(std::string_view text) {
  std::string bytes;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c == 0xEE && i + 2 < text.size() && (text[i + 1] & 0xFC) == 0xBC) {
      bytes.push_back(static_cast<char>(((text[i + 1] & 3) << 6) | (text[i + 2] & 0x3F)));
      i += 2;
    } else {
      bytes.push_back(text[i]);
    }
  }
  return bytes;
}

// A record's line from its values as a target gives them back, with its host after a '|'.
inline std::string cdf_line(const adcdf::RecordType& type, const std::vector<std::string>& values,
                            const std::string& host) {
  std::string line;
  for (size_t i = 0; i < type.columns.size(); ++i) {
    const char* quote = type.columns[i].quoted ? "\"" : "";
    line += (i > 0 ? "," : "") + (quote + original(values.at(i))) + quote;
  }
  return line + "|" + host;
}

// Integer columns hold integers exactly when their text is a plain integer; `types[i]` is how a
// target stored `values[i]`: "integer" or anything else.
inline void expect_typed(const adcdf::RecordType& type, const std::vector<std::string>& values,
                         const std::vector<std::string>& types) {
  for (size_t i = 0; i < type.columns.size(); ++i) {
    int64_t number;
    const bool plain = adcdf::exporter::parse_integer(values[i], number);
    EXPECT_EQ(types[i] == "integer", type.columns[i].type == adcdf::ValueType::kInteger && plain)
        << type.columns[i].name << " = '" << values[i] << "'";
  }
}

// The rows of a SQLite statement, as text; NULL reads as an empty string.
inline Rows sqlite_rows(sqlite3* db, const std::string& sql, const std::string& bound = "") {
  sqlite3_stmt* s = nullptr;
  EXPECT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_bind_text(s, 1, bound.data(), static_cast<int>(bound.size()), SQLITE_STATIC);
  Rows rows;
  while (s != nullptr && sqlite3_step(s) == SQLITE_ROW) {
    rows.emplace_back();
    for (int i = 0; i < sqlite3_column_count(s); ++i) {
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(s, i));
      rows.back().emplace_back(text ? text : "", static_cast<size_t>(sqlite3_column_bytes(s, i)));
    }
  }
  sqlite3_finalize(s);
  return rows;
}

// RFC 4180, lines ended by CR LF.
inline Rows parse_csv(const std::string& text) {
  Rows rows(1, std::vector<std::string>(1));
  bool quoted = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (quoted && c == '"' && i + 1 < text.size() && text[i + 1] == '"') {
      rows.back().back() += text[i++];
    } else if (c == '"') {
      quoted = !quoted;
    } else if (!quoted && c == ',') {
      rows.back().emplace_back();
    } else if (!quoted && c == '\r' && text.substr(i, 2) == "\r\n") {
      rows.emplace_back(1);
      ++i;
    } else {
      rows.back().back() += c;
    }
  }
  rows.pop_back();  // after the last CR LF
  return rows;
}

enum class Kind { kCsv, kJsonl, kSqlite, kPostgres };

// Every row of a target as cdf_line() of its values.
inline std::multiset<std::string> read_back(Kind kind, const std::string& where) {
  std::multiset<std::string> lines;
  const size_t extras = std::size(adcdf::exporter::kExtraColumns);
  sqlite3* db = nullptr;
  sqlite3_open(kind == Kind::kSqlite ? where.c_str() : ":memory:", &db);
  sqlite3_busy_timeout(db, 10000);
  std::istringstream in(kind == Kind::kJsonl ? daemon_test::read_file(where) : "");
  for (std::string json; std::getline(in, json);) {
    Rows fields = sqlite_rows(db, "SELECT value, type FROM json_each(?1) ORDER BY id", json);
    std::vector<std::string> values, types;
    for (const auto& field : fields) values.push_back(field[0]), types.push_back(field[1]);
    const adcdf::RecordType& type = *std::ranges::find(
        adcdf::record_catalogue(), std::stoi(values.at(0)), &adcdf::RecordType::type);
    const size_t n = type.columns.size();
    expect_typed(type, values, types);
    lines.insert(cdf_line(type, values, values.at(n + 1)));
  }
  for (const adcdf::RecordType& type : adcdf::record_catalogue()) {
    if (type.type == adcdf::kHeaderType || kind == Kind::kJsonl) continue;
    const std::string table = adcdf::exporter::table_name(type.type);
    const size_t n = type.columns.size();
    std::string select = "SELECT ";
    for (const adcdf::RecordColumn& c : type.columns) {
      select += kind == Kind::kSqlite ? "typeof(" + c.name + "), "
                : c.type == adcdf::ValueType::kText
                    ? c.name + ", "
                    : "coalesce(" + c.name + "::text, verbatim->>'" + c.name + "'), ";
    }
    Rows rows;
    if (kind == Kind::kCsv && daemon_test::fs::exists(where + "/" + table + ".csv")) {
      rows = parse_csv(daemon_test::read_file(where + "/" + table + ".csv"));
      EXPECT_EQ(rows.at(0).size(), n + extras) << table;
      rows.erase(rows.begin());
    } else if (kind == Kind::kSqlite) {
      rows = sqlite_rows(db, select + "* FROM " + table);
      for (auto& row : rows) {
        expect_typed(type, {row.begin() + n, row.end()}, row);
        row.erase(row.begin(), row.begin() + n);
      }
    } else if (kind == Kind::kPostgres) {
      rows = pg_query(where, select + "event_time, host FROM " + table);
    }
    for (const auto& row : rows) lines.insert(cdf_line(type, row, row.at(n + 1)));
  }
  sqlite3_close(db);
  return lines;
}

}  // namespace export_test
