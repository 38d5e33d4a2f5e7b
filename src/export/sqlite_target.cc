// SQLite: one STRICT table per record type. Integer columns are of type ANY, which keeps a value
// as it is bound: a plain integer is bound as an integer, anything else as its text, so " 34"
// stays " 34" where an INTEGER column would have turned it into 34. A run is one transaction.
//
// The file is in write-ahead-log mode, set by the first statement on a new file (and on an old
// one at its next run): readers go on reading the last commit while a run writes, and a run's
// commit never waits for them. A lock held by another writer is a transient failure.
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <utility>

#include "export/target.h"
#include "export/values.h"

namespace adcdf::exporter {
namespace {

class Statement {
 public:
  Statement() = default;
  Statement(sqlite3* db, const std::string& sql);
  Statement(Statement&& other) noexcept : s_(std::exchange(other.s_, nullptr)) {}
  Statement& operator=(Statement&& other) noexcept {
    std::swap(s_, other.s_);
    return *this;
  }
  ~Statement() { sqlite3_finalize(s_); }
  sqlite3_stmt* get() const { return s_; }

 private:
  sqlite3_stmt* s_ = nullptr;
};

class SqliteTarget final : public Target {
 public:
  explicit SqliteTarget(const std::string& file) : file_(file) {
    // One thread uses SQLite: no locks, and no memory statistics, which take one per allocation.
    sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    if (sqlite3_open_v2(file.c_str(), &db_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW,
                        nullptr) != SQLITE_OK) {
      std::string why = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
      sqlite3_close(db_);
      raise_export_error("cannot open " + file + ": " + why);
    }
    sqlite3_busy_timeout(db_, 5000);
    // Pages of 16 KiB on a new file (an existing one keeps its own): a quarter of the pages
    // to write and link for the same rows, still small for a reader's lookups.
    exec("PRAGMA page_size = 16384");
    exec("PRAGMA journal_mode = WAL");
    exec("PRAGMA cache_size = -16384");
  }
  ~SqliteTarget() override { sqlite3_close_v2(db_); }

  // Every run takes the database's write lock: runs never overlap, whatever they load.
  std::vector<Loaded> begin(const std::vector<std::string>&) override {
    exec("BEGIN IMMEDIATE");
    in_transaction_ = true;
    if (!prepared_) prepare();
    std::vector<Loaded> loaded;
    Statement select(db_,
                     "SELECT " + std::string(kStateColumns) + " FROM " + std::string(kStateTable));
    next_id_ = 1;
    while (step(select) == SQLITE_ROW) {
      sqlite3_stmt* s = select.get();
      auto text = [s](int i) {
        const unsigned char* t = sqlite3_column_text(s, i);
        return t == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(t));
      };
      loaded.push_back(Loaded{sqlite3_column_int64(s, 0), text(1), sqlite3_column_int64(s, 2),
                              text(3), sqlite3_column_int64(s, 4), sqlite3_column_int64(s, 5),
                              sqlite3_column_type(s, 6) != SQLITE_NULL, text(6), text(7),
                              sqlite3_column_int64(s, 8)});
      next_id_ = std::max(next_id_, loaded.back().id + 1);
    }
    return loaded;
  }

  int64_t new_id() override { return next_id_++; }

  std::map<int64_t, Origins> origins() override {
    std::map<int64_t, Origins> found;
    Statement query(db_, origins_query());
    while (step(query) == SQLITE_ROW) {
      sqlite3_stmt* s = query.get();
      found[sqlite3_column_int64(s, 0)] = Origins{
          sqlite3_column_int64(s, 1), sqlite3_column_int64(s, 2), sqlite3_column_int64(s, 3)};
    }
    return found;
  }

  void write(const Row& row) override {
    sqlite3_stmt* s = inserts_[static_cast<size_t>(row.type->type)].get();
    int i = 0;
    for (; i < static_cast<int>(row.values.size()); ++i) {
      std::string_view value = row.values[static_cast<size_t>(i)];
      int64_t number;
      if (row.type->columns[static_cast<size_t>(i)].type == ValueType::kInteger &&
          parse_integer(value, number)) {
        sqlite3_bind_int64(s, i + 1, number);
      } else {
        if (!row.plain) value = utf8_text(value, scratch_[static_cast<size_t>(i)]);
        sqlite3_bind_text(s, i + 1, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
      }
    }
    int64_t seconds;
    char time[20];
    if (parse_integer(row.values[kCommonColumns - 1], seconds) && format_utc(seconds, ' ', time)) {
      sqlite3_bind_text(s, ++i, time, 19, SQLITE_STATIC);
    } else {
      sqlite3_bind_null(s, ++i);
    }
    bind_optional(s, ++i, row.host);
    bind_optional(s, ++i, row.date);
    sqlite3_bind_int64(s, ++i, row.generation);
    sqlite3_bind_int64(s, ++i, row.line);
    if (step(s) != SQLITE_DONE) fail("cannot insert into " + table_name(row.type->type));
    sqlite3_reset(s);
  }

  void commit(const LoadedChange& change) override {
    Statement forget(db_, "DELETE FROM " + std::string(kStateTable) + " WHERE id = ?1");
    for (const Loaded& l : change.entries) forget_id(forget, l.id);
    for (int64_t id : change.forgotten) forget_id(forget, id);
    Statement remember(db_, "INSERT INTO " + std::string(kStateTable) + " (" +
                                std::string(kStateColumns) +
                                ") VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)");
    sqlite3_stmt* s = remember.get();
    for (const Loaded& l : change.entries) {
      sqlite3_bind_int64(s, 1, l.id);
      sqlite3_bind_text(s, 2, l.source.data(), static_cast<int>(l.source.size()), SQLITE_STATIC);
      sqlite3_bind_int64(s, 3, l.key_bytes);
      sqlite3_bind_text(s, 4, l.key.data(), static_cast<int>(l.key.size()), SQLITE_STATIC);
      sqlite3_bind_int64(s, 5, l.bytes);
      sqlite3_bind_int64(s, 6, l.lines);
      bind_optional(s, 7, l.header ? &l.host : nullptr);
      bind_optional(s, 8, l.date.empty() ? nullptr : &l.date);
      sqlite3_bind_int64(s, 9, l.first_loaded);
      if (step(s) != SQLITE_DONE) fail("cannot record what was loaded");
      sqlite3_reset(s);
    }
    exec("COMMIT");
    in_transaction_ = false;
  }

  void abandon() override {
    if (in_transaction_) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    in_transaction_ = false;
    // The tables the run created went with it: the next run creates them again.
    prepared_ = false;
  }

 private:
  // Another writer's lock is waited out; anything else is for a person to fix.
  [[noreturn]] void fail(const std::string& what) {
    const int code = sqlite3_extended_errcode(db_) & 0xff;
    raise_export_error(
        what + " in " + file_ + ": " + sqlite3_errmsg(db_),
        code == SQLITE_BUSY || code == SQLITE_LOCKED ? kReasonUnavailable : kReasonRefused);
  }
  void forget_id(const Statement& forget, int64_t id) {
    sqlite3_bind_int64(forget.get(), 1, id);
    step(forget);
    sqlite3_reset(forget.get());
  }
  void exec(const std::string& sql) {
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) fail(sql);
  }
  int step(const Statement& statement) { return step(statement.get()); }
  int step(sqlite3_stmt* s) {
    int result = sqlite3_step(s);
    if (result != SQLITE_ROW && result != SQLITE_DONE) fail("a statement failed");
    return result;
  }
  static void bind_optional(sqlite3_stmt* s, int i, const std::string* text) {
    if (text == nullptr) {
      sqlite3_bind_null(s, i);
    } else {
      sqlite3_bind_text(s, i, text->data(), static_cast<int>(text->size()), SQLITE_STATIC);
    }
  }

  // Creates what is missing, brings an older exporter's tables up to date and prepares an
  // insert per record type. The indexes come before the rows: rows arrive in about the order
  // of their event time, so each entry lands at the right edge of its index, which costs less
  // than sorting a whole table into a new index at the end (and no temporary file).
  void prepare() {
    exec(create_tables(Dialect::kSqlite));
    exec(create_indexes(Dialect::kSqlite));
    if (!has_column(std::string(kStateTable), "id")) exec(upgrade_state(Dialect::kSqlite));
    for_each_table([&](const RecordType& type) {
      const std::string table = table_name(type.type);
      if (!has_column(table, "generation_id")) exec(upgrade_table(Dialect::kSqlite, table));
      std::string columns = column_list(type, ", ");
      std::string values;
      for (size_t i = 0; i < type.columns.size() + std::size(kExtraColumns); ++i) values += "?,";
      columns.resize(columns.size() - 2);
      values.pop_back();
      inserts_[static_cast<size_t>(type.type)] =
          Statement(db_, "INSERT INTO " + table + " (" + columns + ") VALUES (" + values + ")");
    });
    prepared_ = true;
  }

  bool has_column(const std::string& table, const char* column) {
    Statement query(db_, "SELECT count(*) FROM pragma_table_info('" + table + "') WHERE name = '" +
                             column + "'");
    step(query);
    return sqlite3_column_int64(query.get(), 0) > 0;
  }

  std::string file_;
  sqlite3* db_ = nullptr;
  bool in_transaction_ = false;
  bool prepared_ = false;
  int64_t next_id_ = 1;
  std::array<Statement, kRecordTypeLimit> inserts_;
  std::array<std::string, 32> scratch_;  // one per column: every bound text stays until the insert
};

Statement::Statement(sqlite3* db, const std::string& sql) {
  if (sqlite3_prepare_v3(db, sql.c_str(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT,
                         &s_, nullptr) != SQLITE_OK) {
    raise_export_error("cannot prepare " + sql + ": " + sqlite3_errmsg(db));
  }
}

}  // namespace

std::unique_ptr<Target> sqlite_target(const std::string& file) {
  return std::make_unique<SqliteTarget>(file);
}

}  // namespace adcdf::exporter
