// PostgreSQL through COPY: one table per record type, integer columns as bigint. A value of an
// integer column that is not a plain integer (" 34", "007", "") cannot be a bigint: the column
// is NULL and the row's `verbatim` column, a JSON object, holds the value's text under the
// column's name. A run is one transaction; exporters of several mail servers may fill the same
// tables, each holding a lock on its own base while it runs.
#include <libpq-fe.h>

#include <array>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include "export/target.h"
#include "export/values.h"

namespace adcdf::exporter {
namespace {

constexpr size_t kCopyAt = 4 << 20;  // bytes of rows sent to a table at once
constexpr std::string_view kSchemaLock = "ekadcdf-export schema";
// COPY's binary format: signature, flags, length of the header extension.
constexpr char kBinaryHeader[] = "PGCOPY\n\377\r\n\0\0\0\0\0\0\0\0\0";
constexpr int64_t kPostgresEpoch = 946684800;  // 2000-01-01, in seconds since 1970

// An integer in network byte order.
template <typename T>
void put(std::string& out, T value) {
  char bytes[sizeof(T)];
  for (size_t i = 0; i < sizeof(T); ++i) {
    bytes[i] =
        static_cast<char>(static_cast<std::make_unsigned_t<T>>(value) >> (8 * (sizeof(T) - 1 - i)));
  }
  out.append(bytes, sizeof(T));
}

void put_text(std::string& out, std::string_view text) {
  put<int32_t>(out, static_cast<int32_t>(text.size()));
  out.append(text);
}

void put_optional(std::string& out, const std::string* text) {
  if (text == nullptr) {
    put<int32_t>(out, -1);
  } else {
    put_text(out, *text);
  }
}

void put_number(std::string& out, int64_t value) {
  put<int32_t>(out, 8);
  put<int64_t>(out, value);
}

// A "YYYY-MM-DD" date as days since 2000-01-01, or NULL.
void put_date(std::string& out, const std::string* date) {
  if (date == nullptr) {
    put<int32_t>(out, -1);
  } else {
    put<int32_t>(out, 4);
    put<int32_t>(out, static_cast<int32_t>(date_days(*date) - kPostgresEpoch / 86400));
  }
}

class Result {
 public:
  explicit Result(PGresult* r) : r_(r) {}
  Result(Result&& other) noexcept : r_(std::exchange(other.r_, nullptr)) {}
  ~Result() { PQclear(r_); }
  PGresult* get() const { return r_; }
  std::string text(int row, int column) const { return PQgetvalue(r_, row, column); }
  bool null(int row, int column) const { return PQgetisnull(r_, row, column) != 0; }
  int64_t number(int row, int column) const { return std::stoll(text(row, column)); }

 private:
  PGresult* r_;
};

// Loads batches of rows on a thread of its own, so that the next rows are made while the server
// loads the last. At most two batches wait.
class Sender {
 public:
  using Load = std::function<void(const std::string& command, const std::string& rows)>;
  explicit Sender(Load load) : load_(std::move(load)), thread_([this] { loop(); }) {}
  ~Sender() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }

  // Queues `rows` for `command`; throws the failure of an earlier batch.
  void send(const std::string& command, std::string&& rows) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return queue_.size() < 2 || failure_; });
    rethrow();
    queue_.emplace_back(&command, std::move(rows));
    changed_.notify_all();
  }
  // Waits until every batch is loaded; throws the failure of one.
  void wait() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return (queue_.empty() && !busy_) || failure_; });
    rethrow();
  }
  // Drops the batches that wait and any failure, once the batch in hand is done; `cancel`
  // is called first when there is one (it may be waiting for a lock).
  void discard(const std::function<void()>& cancel) {
    std::unique_lock lock(mutex_);
    queue_.clear();
    if (busy_) cancel();
    changed_.wait(lock, [this] { return !busy_; });
    failure_ = nullptr;
  }

 private:
  void rethrow() {
    if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
  }
  void loop() {
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return !queue_.empty() || stopping_; });
      if (stopping_) return;
      auto [command, rows] = std::move(queue_.front());
      queue_.pop_front();
      busy_ = true;
      lock.unlock();
      std::exception_ptr failure;
      try {
        load_(*command, rows);
      } catch (...) {
        failure = std::current_exception();
      }
      lock.lock();
      busy_ = false;
      if (failure) {
        failure_ = failure;
        queue_.clear();
      }
      changed_.notify_all();
    }
  }

  Load load_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::pair<const std::string*, std::string>> queue_;
  bool busy_ = false;
  bool stopping_ = false;
  std::exception_ptr failure_;
  std::thread thread_;
};

class PostgresTarget final : public Target {
 public:
  explicit PostgresTarget(const std::string& conninfo) {
    const char* const keys[] = {"dbname", "fallback_application_name", "client_encoding", nullptr};
    const char* const values[] = {conninfo.c_str(), "ekadcdf-export", "UTF8", nullptr};
    conn_ = PQconnectdbParams(keys, values, 1);
    if (PQstatus(conn_) != CONNECTION_OK) fail("cannot connect");
    PQsetNoticeProcessor(
        conn_, [](void*, const char*) {}, nullptr);
    for (const RecordType& type : record_catalogue()) {
      if (type.type == kHeaderType) continue;
      std::string columns;
      for (const RecordColumn& column : type.columns) columns += column.name + ", ";
      for (std::string_view extra : kExtraColumns) columns.append(extra).append(", ");
      tables_[static_cast<size_t>(type.type)].copy =
          "COPY " + table_name(type.type) + " (" + columns + "verbatim) FROM STDIN (FORMAT binary)";
    }
  }
  ~PostgresTarget() override {
    sender_.discard([this] { cancel(); });
    PQfinish(conn_);
  }

  std::vector<Loaded> begin(const std::string& source) override {
    exec("cannot begin a transaction", "BEGIN");
    in_transaction_ = true;
    exec("cannot lock the base's rows", "SELECT pg_advisory_xact_lock(hashtextextended($1, 0))",
         {source});
    create_missing();
    Result state = exec("cannot read " + std::string(kStateTable),
                        "SELECT source, key_bytes, key, bytes, lines, host, "
                        "to_char(generation_date, 'YYYY-MM-DD'), first_loaded FROM " +
                            std::string(kStateTable));
    std::vector<Loaded> loaded;
    for (int i = 0; i < PQntuples(state.get()); ++i) {
      loaded.push_back(Loaded{state.text(i, 0), state.number(i, 1), state.text(i, 2),
                              state.number(i, 3), state.number(i, 4), !state.null(i, 5),
                              state.text(i, 5), state.text(i, 6), state.number(i, 7)});
    }
    return loaded;
  }

  // Rows go in COPY's binary format: no text to escape here, none to parse on the server.
  void write(const Row& row) override {
    Table& table = tables_[static_cast<size_t>(row.type->type)];
    std::string& out = table.rows;
    if (out.empty()) out.append(kBinaryHeader, sizeof kBinaryHeader - 1);
    put<int16_t>(out, static_cast<int16_t>(row.values.size() + std::size(kExtraColumns) + 1));
    verbatim_.clear();
    for (size_t i = 0; i < row.values.size(); ++i) {
      const std::string_view value = row.values[i];
      const RecordColumn& column = row.type->columns[i];
      int64_t number;
      if (column.type == ValueType::kText) {
        put_text(out, row.plain ? value : utf8_text(value, scratch_));
      } else if (parse_integer(value, number)) {
        put_number(out, number);
      } else {
        put<int32_t>(out, -1);
        verbatim_.append(verbatim_.empty() ? "\1{" : ",");
        append_json_string(verbatim_, column.name);
        verbatim_.push_back(':');
        append_json_string(verbatim_, row.plain ? value : utf8_text(value, scratch_));
      }
    }
    int64_t seconds;
    if (parse_integer(row.values[kCommonColumns - 1], seconds) && seconds >= kFirstTime &&
        seconds <= kLastTime) {
      put_number(out, (seconds - kPostgresEpoch) * 1000000);
    } else {
      put<int32_t>(out, -1);
    }
    put_optional(out, row.host);
    put_date(out, row.date);
    if (verbatim_.empty()) {
      put<int32_t>(out, -1);
    } else {
      verbatim_.push_back('}');  // jsonb's binary form: version 1, then the text
      put_text(out, verbatim_);
    }
    if (out.size() >= kCopyAt) send(table);
  }

  void commit(const LoadedChange& change) override {
    for (Table& table : tables_) {
      if (!table.rows.empty()) send(table);
    }
    sender_.wait();
    const std::string state(kStateTable);
    const std::string what = "cannot record what was loaded";
    exec(what, "DELETE FROM " + state + " WHERE source = $1", {change.source});
    for (const Loaded& t : change.taken) {
      exec(what, "DELETE FROM " + state + " WHERE source = $1 AND key = $2", {t.source, t.key});
    }
    std::string rows(kBinaryHeader, sizeof kBinaryHeader - 1);
    for (const Loaded& l : change.entries) {
      put<int16_t>(rows, 8);
      put_text(rows, l.source);
      put_number(rows, l.key_bytes);
      put_text(rows, l.key);
      put_number(rows, l.bytes);
      put_number(rows, l.lines);
      put_optional(rows, l.header ? &l.host : nullptr);
      put_date(rows, l.date.empty() ? nullptr : &l.date);
      put_number(rows, l.first_loaded);
    }
    put<int16_t>(rows, -1);
    copy("COPY " + state + " FROM STDIN (FORMAT binary)", rows);
    if (created_) check(PQexec(conn_, event_time_indexes().c_str()), "cannot index the tables");
    exec("cannot commit", "COMMIT");
    created_ = false;
    in_transaction_ = false;
  }

  void abandon() override {
    for (Table& table : tables_) table.rows.clear();
    sender_.discard([this] { cancel(); });
    if (in_transaction_) PQclear(PQexec(conn_, "ROLLBACK"));
    in_transaction_ = false;
    created_ = false;
  }

 private:
  struct Table {
    std::string copy;  // the COPY command
    std::string rows;  // rows not yet sent
  };

  // Asks the server to stop the statement in hand.
  void cancel() {
    char error[256];
    PGcancel* request = PQgetCancel(conn_);
    PQcancel(request, error, sizeof error);
    PQfreeCancel(request);
  }

  void send(Table& table) {
    put<int16_t>(table.rows, -1);  // the end of the rows
    sender_.send(table.copy, std::exchange(table.rows, {}));
  }

  [[noreturn]] void fail(const std::string& what) {
    std::string why = PQerrorMessage(conn_);
    while (!why.empty() && why.back() == '\n') why.pop_back();
    throw ExportError("PostgreSQL: " + what + ": " + why);
  }

  Result check(PGresult* r, const std::string& what) {
    Result result(r);
    ExecStatusType status = PQresultStatus(r);
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) fail(what);
    return result;
  }

  // Runs `sql`, with `parameters` for $1, ...; `what` names it in an error.
  Result exec(const std::string& what, const std::string& sql,
              std::initializer_list<std::string> parameters = {}) {
    std::vector<const char*> values;
    for (const std::string& p : parameters) values.push_back(p.c_str());
    return check(PQexecParams(conn_, sql.c_str(), static_cast<int>(values.size()), nullptr,
                              values.data(), nullptr, nullptr, 0),
                 what);
  }

  void copy(const std::string& command, const std::string& rows) {
    Result start(PQexec(conn_, command.c_str()));
    const std::string what = "cannot load " + command.substr(5, command.find(' ', 5) - 5);
    if (PQresultStatus(start.get()) != PGRES_COPY_IN) fail(what);
    if (PQputCopyData(conn_, rows.data(), static_cast<int>(rows.size())) != 1 ||
        PQputCopyEnd(conn_, nullptr) != 1) {
      fail(what);
    }
    bool failed = false;
    while (PGresult* r = PQgetResult(conn_)) {
      failed |= PQresultStatus(r) != PGRES_COMMAND_OK;
      PQclear(r);
    }
    if (failed) fail(what);
  }

  // The tables and the state table, when one of them is missing. Exporters that find them
  // missing at the same time create them one after the other. The indexes follow at the end of
  // the run, built at once from the rows loaded.
  void create_missing() {
    std::string missing = "SELECT to_regclass('" + std::string(kStateTable) + "') IS NULL";
    std::string schema = "CREATE TABLE IF NOT EXISTS " + std::string(kStateTable) +
                         " (source text NOT NULL, key_bytes bigint NOT NULL, key text NOT NULL,"
                         " bytes bigint NOT NULL, lines bigint NOT NULL, host text,"
                         " generation_date date, first_loaded bigint NOT NULL);\n";
    for (const RecordType& type : record_catalogue()) {
      if (type.type == kHeaderType) continue;
      const std::string table = table_name(type.type);
      missing += " OR to_regclass('" + table + "') IS NULL";
      schema += "CREATE TABLE IF NOT EXISTS " + table + " (";
      for (const RecordColumn& column : type.columns) {
        schema += column.name + (column.type == ValueType::kInteger ? " bigint, " : " text, ");
      }
      schema += "event_time timestamptz, host text, generation_date date, verbatim jsonb);\n";
    }
    if (exec("cannot look for the tables", missing).text(0, 0) != "t") return;
    created_ = true;
    exec("cannot lock the schema", "SELECT pg_advisory_xact_lock(hashtextextended($1, 0))",
         {std::string(kSchemaLock)});
    check(PQexec(conn_, schema.c_str()), "cannot create the tables");
  }

  PGconn* conn_ = nullptr;
  bool in_transaction_ = false;
  bool created_ = false;  // this run created the tables
  std::array<Table, kRecordTypeLimit> tables_;
  std::string scratch_;
  std::string verbatim_;
  Sender sender_{
      [this](const std::string& command, const std::string& rows) { copy(command, rows); }};
};

}  // namespace

std::unique_ptr<Target> postgres_target(const std::string& conninfo) {
  return std::make_unique<PostgresTarget>(conninfo);
}

}  // namespace adcdf::exporter
