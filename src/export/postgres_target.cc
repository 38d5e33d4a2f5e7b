// PostgreSQL through binary COPY: one table per record type, integer columns as bigint. A value
// of an integer column that is not a plain integer (" 34", "007", "") cannot be a bigint: the
// column is NULL and the row's `verbatim` column, a JSON object, holds the value's text under
// the column's name. A run is one transaction; exporters of several mail servers may fill the
// same tables at once, and runs on the same generations (whatever the path) wait for each other
// on locks named after their content.
//
// A lost connection, a server that is starting, stopping or refusing connections, is a
// transient failure: the next run connects again. What the server refuses for good (a password,
// a missing database, a full disk, a table of another shape) is not.
#include <libpq-fe.h>

#include <algorithm>
#include <array>
#include <bit>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "export/target.h"
#include "export/values.h"

namespace adcdf::exporter {
namespace {

constexpr size_t kCopyAt = 4 << 20;    // bytes of rows sent to a table at once
constexpr size_t kBuffered = 8 << 20;  // bytes of rows held for all tables, at most
constexpr size_t kPiece = 256 << 10;   // bytes handed to libpq at once, which copies them
constexpr size_t kEarly = 1 << 20;     // bytes of rows after which an idle server gets some
constexpr std::string_view kSchemaLock = "ekadcdf-export schema";
// COPY's binary format: signature, flags, length of the header extension.
constexpr char kBinaryHeader[] = "PGCOPY\n\377\r\n\0\0\0\0\0\0\0\0\0";
constexpr int64_t kPostgresEpoch = 946684800;  // 2000-01-01, in seconds since 1970

// An integer in network byte order.
template <typename T>
inline void put(std::string& out, T value) {
  auto bits = static_cast<std::make_unsigned_t<T>>(value);
  if constexpr (std::endian::native == std::endian::little) {
    if constexpr (sizeof(T) == 2) bits = __builtin_bswap16(bits);
    if constexpr (sizeof(T) == 4) bits = __builtin_bswap32(bits);
    if constexpr (sizeof(T) == 8) bits = __builtin_bswap64(bits);
  }
  char bytes[sizeof(T)];
  std::memcpy(bytes, &bits, sizeof(T));
  out.append(bytes, sizeof(T));
}

inline void put_text(std::string& out, std::string_view text) {
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

// Whether `value` fits an integer column of `size` bytes.
inline bool fits(int64_t value, int size) {
  return size == 8 || (size == 4 && value == static_cast<int32_t>(value)) ||
         (size == 2 && value == static_cast<int16_t>(value));
}

// An integer as a column of `size` bytes (smallint, integer or bigint) holds it.
inline void put_sized(std::string& out, int64_t value, int size) {
  put<int32_t>(out, size);
  if (size == 2) {
    put<int16_t>(out, static_cast<int16_t>(value));
  } else if (size == 4) {
    put<int32_t>(out, static_cast<int32_t>(value));
  } else {
    put<int64_t>(out, value);
  }
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
  // Whether no batch waits or loads.
  bool idle() {
    std::lock_guard lock(mutex_);
    return queue_.empty() && !busy_;
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

// Whether the failure of a statement is one that waiting cures: the connection is gone, or the
// server said so (connection exceptions, shutting down or starting, too many connections, a
// conflict between transactions).
bool transient(PGconn* conn, const PGresult* result) {
  if (PQstatus(conn) != CONNECTION_OK) return true;
  const char* state = result ? PQresultErrorField(result, PG_DIAG_SQLSTATE) : nullptr;
  if (state == nullptr) return false;
  const std::string_view s = state;
  return s.starts_with("08") || s.starts_with("57P") || s == "53300" || s == "40001" ||
         s == "40P01";
}

class PostgresTarget final : public Target {
 public:
  explicit PostgresTarget(std::string conninfo) : conninfo_(std::move(conninfo)) {
    for_each_table([&](const RecordType& type) {
      tables_[static_cast<size_t>(type.type)].copy = "COPY " + table_name(type.type) + " (" +
                                                     column_list(type, ", ") +
                                                     "verbatim) FROM STDIN (FORMAT binary)";
    });
    try {
      connect();
    } catch (...) {
      // No destructor runs for an object whose constructor throws.
      PQfinish(conn_);
      throw;
    }
  }
  ~PostgresTarget() override {
    sender_.discard([this] { cancel(); });
    PQfinish(conn_);
  }

  std::vector<Loaded> begin(const std::vector<std::string>& locks) override {
    if (PQstatus(conn_) != CONNECTION_OK) connect();
    exec("cannot begin a transaction", "BEGIN");
    in_transaction_ = true;
    for (const std::string& key : locks) {  // sorted: two runs take them in the same order
      exec("cannot lock the generations", "SELECT pg_advisory_xact_lock(hashtextextended($1, 0))",
           {key});
    }
    create_missing();
    if (!sizes_read_) read_sizes();
    Result state = exec("cannot read " + std::string(kStateTable),
                        "SELECT id, source, key_bytes, key, bytes, lines, host, "
                        "to_char(generation_date, 'YYYY-MM-DD'), first_loaded FROM " +
                            std::string(kStateTable));
    std::vector<Loaded> loaded;
    for (int i = 0; i < PQntuples(state.get()); ++i) {
      loaded.push_back(Loaded{state.number(i, 0), state.text(i, 1), state.number(i, 2),
                              state.text(i, 3), state.number(i, 4), state.number(i, 5),
                              !state.null(i, 6), state.text(i, 6), state.text(i, 7),
                              state.number(i, 8)});
    }
    return loaded;
  }

  // The connection is the sender's while it loads a batch: wait for it first.
  int64_t new_id() override {
    sender_.wait();
    return exec("cannot number a generation",
                "SELECT nextval('" + std::string(kGenerationSequence) + "')")
        .number(0, 0);
  }

  std::map<int64_t, Origins> origins() override {
    Result r = exec("cannot count the rows", origins_query());
    std::map<int64_t, Origins> found;
    for (int i = 0; i < PQntuples(r.get()); ++i) {
      found[r.number(i, 0)] = Origins{r.number(i, 1), r.number(i, 2), r.number(i, 3)};
    }
    return found;
  }

  // Rows go in COPY's binary format: no text to escape here, none to parse on the server.
  void write(const Row& row) override {
    Table& table = tables_[static_cast<size_t>(row.type->type)];
    std::string& out = table.rows;
    const size_t before = out.size();
    if (out.empty()) out.append(kBinaryHeader, sizeof kBinaryHeader - 1);
    put<int16_t>(out, static_cast<int16_t>(row.values.size() + std::size(kExtraColumns) + 1));
    verbatim_.clear();
    for (size_t i = 0; i < row.values.size(); ++i) {
      const std::string_view value = row.values[i];
      const RecordColumn& column = row.type->columns[i];
      int64_t number;
      if (column.type == ValueType::kText) {
        put_text(out, row.plain ? value : utf8_text(value, scratch_));
      } else if (parse_integer(value, number) && fits(number, table.sizes[i])) {
        put_sized(out, number, table.sizes[i]);
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
    put_number(out, row.generation);
    put_number(out, row.line);
    if (!verbatim_.empty()) verbatim_.push_back('}');  // jsonb's binary form: version 1, text
    put_optional(out, verbatim_.empty() ? nullptr : &verbatim_);
    buffered_ += out.size() - before;
    if (out.size() >= kCopyAt) {
      send(table);
    } else if (buffered_ >= kBuffered || (buffered_ >= idle_check_ && sender_.idle())) {
      // Many tables each holding a little, or a server with nothing to do (at the start, or
      // loading faster than rows are made): the table holding most goes. Memory stays
      // bounded while COPYs stay large (each costs the server a statement and a round trip).
      send(*std::max_element(tables_.begin(), tables_.end(), [](const Table& a, const Table& b) {
        return a.rows.size() < b.rows.size();
      }));
    } else if (buffered_ >= idle_check_) {
      idle_check_ = buffered_ + kEarly;
    }
  }

  void commit(const LoadedChange& change) override {
    for (Table& table : tables_) {
      if (!table.rows.empty()) send(table);
    }
    sender_.wait();
    const std::string state(kStateTable);
    std::string ids = "{";
    for (const Loaded& l : change.entries) ids += std::to_string(l.id) + ",";
    for (int64_t id : change.forgotten) ids += std::to_string(id) + ",";
    ids.back() = '}';
    exec("cannot record what was loaded", "DELETE FROM " + state + " WHERE id = ANY($1::bigint[])",
         {ids});
    std::string rows(kBinaryHeader, sizeof kBinaryHeader - 1);
    for (const Loaded& l : change.entries) {
      put<int16_t>(rows, 9);
      put_number(rows, l.id);
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
    copy("COPY " + state + " (" + std::string(kStateColumns) + ") FROM STDIN (FORMAT binary)",
         rows);
    if (created_)
      check(PQexec(conn_, create_indexes(Dialect::kPostgres).c_str()), "cannot index the tables");
    exec("cannot commit", "COMMIT");
    created_ = false;
    in_transaction_ = false;
  }

  void abandon() override {
    for (Table& table : tables_) table.rows.clear();
    buffered_ = 0;
    idle_check_ = kEarly;
    sender_.discard([this] { cancel(); });
    if (in_transaction_) PQclear(PQexec(conn_, "ROLLBACK"));
    in_transaction_ = false;
    created_ = false;
  }

 private:
  struct Table {
    std::string copy;        // the COPY command
    std::string rows;        // rows not yet sent
    std::vector<int> sizes;  // per column of the record, the bytes of its integer type
  };

  // The integer columns' sizes as the tables have them: those of an older exporter are bigint.
  void read_sizes() {
    Result r = exec("cannot read the tables' columns",
                    "SELECT attrelid::regclass::text, attname, attlen FROM pg_attribute WHERE "
                    "attrelid IN (SELECT oid FROM pg_class WHERE relname LIKE 'cdf\\_%' AND "
                    "relnamespace = current_schema()::regnamespace) AND attnum > 0");
    std::map<std::pair<std::string, std::string>, int> sizes;
    for (int i = 0; i < PQntuples(r.get()); ++i) {
      sizes[{r.text(i, 0), r.text(i, 1)}] = static_cast<int>(r.number(i, 2));
    }
    for_each_table([&](const RecordType& type) {
      Table& table = tables_[static_cast<size_t>(type.type)];
      table.sizes.clear();
      for (const RecordColumn& column : type.columns) {
        table.sizes.push_back(sizes[{table_name(type.type), column.name}]);
      }
    });
    sizes_read_ = true;
  }

  // Asks the server to stop the statement in hand.
  void cancel() {
    char error[256];
    PGcancel* request = PQgetCancel(conn_);
    PQcancel(request, error, sizeof error);
    PQfreeCancel(request);
  }

  void connect() {
    sizes_read_ = false;
    const char* const keys[] = {"dbname", "fallback_application_name", "client_encoding", nullptr};
    const char* const values[] = {conninfo_.c_str(), "ekadcdf-export", "UTF8", nullptr};
    // A server that answers but refuses this connection (a password, a missing database) does
    // so for good; one that does not answer, or is not ready, may later. One that was not ready
    // and is by the time it is asked gets a second try.
    PGPing ping = PQPING_NO_RESPONSE;
    for (int attempt = 0; attempt < 2 && ping != PQPING_REJECT; ++attempt) {
      PQfinish(conn_);
      conn_ = PQconnectdbParams(keys, values, 1);
      if (PQstatus(conn_) == CONNECTION_OK) break;
      ping = PQpingParams(keys, values, 1);
      if (ping != PQPING_OK) break;
    }
    if (PQstatus(conn_) != CONNECTION_OK) {
      fail("cannot connect", ping == PQPING_OK ? kReasonRefused : kReasonUnavailable);
    }
    PQsetNoticeProcessor(
        conn_, [](void*, const char*) {}, nullptr);
  }

  void send(Table& table) {
    buffered_ -= std::min(buffered_, table.rows.size());
    idle_check_ = buffered_ + kEarly;
    put<int16_t>(table.rows, -1);  // the end of the rows
    sender_.send(table.copy, std::exchange(table.rows, {}));
  }

  [[noreturn]] void fail(const std::string& what, ErrorReason reason) {
    std::string why = PQerrorMessage(conn_);
    while (!why.empty() && why.back() == '\n') why.pop_back();
    raise_export_error("PostgreSQL: " + what + ": " + why, reason);
  }
  [[noreturn]] void fail(const std::string& what, const PGresult* result) {
    fail(what, transient(conn_, result) ? kReasonUnavailable : kReasonRefused);
  }

  Result check(PGresult* r, const std::string& what) {
    Result result(r);
    ExecStatusType status = PQresultStatus(r);
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) fail(what, r);
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
    if (PQresultStatus(start.get()) != PGRES_COPY_IN) fail(what, start.get());
    // In pieces: libpq copies each into a buffer that grows to the largest piece.
    for (size_t at = 0; at < rows.size(); at += kPiece) {
      const size_t n = std::min(kPiece, rows.size() - at);
      if (PQputCopyData(conn_, rows.data() + at, static_cast<int>(n)) != 1) fail(what, nullptr);
    }
    if (PQputCopyEnd(conn_, nullptr) != 1) fail(what, nullptr);
    std::unique_ptr<Result> failed;
    while (PGresult* r = PQgetResult(conn_)) {
      if (PQresultStatus(r) != PGRES_COMMAND_OK && !failed) {
        failed = std::make_unique<Result>(r);
      } else {
        PQclear(r);
      }
    }
    if (failed) fail(what, failed->get());
  }

  // The tables and the state table, when one of them is missing, and the columns an older
  // exporter's tables lack. Exporters that find something missing at the same time make it one
  // after the other. The indexes follow at the end of the run, built at once from the rows
  // loaded.
  void create_missing() {
    std::string missing = "SELECT to_regclass('" + std::string(kGenerationSequence) +
                          "') IS NULL OR NOT EXISTS (SELECT 1 FROM information_schema.columns "
                          "WHERE table_schema = current_schema() AND table_name = '" +
                          std::string(kStateTable) + "' AND column_name = 'id')";
    std::string names = "{" + std::string(kStateTable);
    for_each_table([&](const RecordType& type) {
      const std::string table = table_name(type.type);
      missing += " OR to_regclass('" + table + "') IS NULL";
      names += "," + table;
    });
    size_t tables = 0;
    for_each_table([&](const RecordType&) { ++tables; });
    const std::string upgraded_tables =
        " OR (SELECT count(*) FROM information_schema.columns WHERE table_schema = "
        "current_schema() AND column_name = 'generation_id') < " +
        std::to_string(tables);
    if (exec("cannot look for the tables", missing + upgraded_tables).text(0, 0) != "t") return;
    exec("cannot lock the schema", "SELECT pg_advisory_xact_lock(hashtextextended($1, 0))",
         {std::string(kSchemaLock)});
    created_ = exec("cannot look for the tables", missing).text(0, 0) == "t";
    // Only tables that were there already can lack an older exporter's columns: bringing new
    // ones up to date would cost a lock and a catalogue change per table for nothing.
    Result existing = exec("cannot look for the tables",
                           "SELECT relname FROM pg_class WHERE relnamespace = "
                           "current_schema()::regnamespace AND relname = ANY($1::text[])",
                           {names + "}"});
    std::string sql = create_tables(Dialect::kPostgres);
    for (int i = 0; i < PQntuples(existing.get()); ++i) {
      const std::string table = existing.text(i, 0);
      sql += table == kStateTable ? upgrade_state(Dialect::kPostgres)
                                  : upgrade_table(Dialect::kPostgres, table);
    }
    check(PQexec(conn_, sql.c_str()), "cannot create the tables");
  }

  std::string conninfo_;
  PGconn* conn_ = nullptr;
  bool in_transaction_ = false;
  size_t buffered_ = 0;         // bytes of rows not yet sent, over all tables
  size_t idle_check_ = kEarly;  // when buffered_ reaches it, an idle sender gets rows
  bool sizes_read_ = false;     // since the connection was made
  bool created_ = false;        // this run created the tables
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
