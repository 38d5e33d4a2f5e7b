// SQLite: one STRICT table per record type. Integer columns are of type ANY, which keeps a value
// as it is bound: a plain integer is bound as an integer, anything else as its text, so " 34"
// stays " 34" where an INTEGER column would have turned it into 34. A run is one transaction.
#include <sqlite3.h>

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
    if (sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
        SQLITE_OK) {
      std::string why = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
      sqlite3_close(db_);
      throw ExportError("cannot open " + file + ": " + why);
    }
    sqlite3_busy_timeout(db_, 60000);
    exec("PRAGMA cache_size = -65536");
  }
  ~SqliteTarget() override { sqlite3_close_v2(db_); }

  std::vector<Loaded> begin(const std::string&) override {
    exec("BEGIN IMMEDIATE");
    in_transaction_ = true;
    if (!prepared_) prepare();
    std::vector<Loaded> loaded;
    Statement select(db_,
                     "SELECT source, key_bytes, key, bytes, lines, host, generation_date, "
                     "first_loaded FROM " +
                         std::string(kStateTable));
    while (step(select) == SQLITE_ROW) {
      sqlite3_stmt* s = select.get();
      auto text = [s](int i) {
        const unsigned char* t = sqlite3_column_text(s, i);
        return t == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(t));
      };
      loaded.push_back(Loaded{text(0), sqlite3_column_int64(s, 1), text(2),
                              sqlite3_column_int64(s, 3), sqlite3_column_int64(s, 4),
                              sqlite3_column_type(s, 5) != SQLITE_NULL, text(5), text(6),
                              sqlite3_column_int64(s, 7)});
    }
    return loaded;
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
    if (step(s) != SQLITE_DONE) fail("cannot insert into " + table_name(row.type->type));
    sqlite3_reset(s);
  }

  void commit(const LoadedChange& change) override {
    Statement forget(db_, "DELETE FROM " + std::string(kStateTable) +
                              " WHERE source = ?1 OR (source = ?2 AND key = ?3)");
    sqlite3_bind_text(forget.get(), 1, change.source.data(), static_cast<int>(change.source.size()),
                      SQLITE_STATIC);
    run_with(forget, {});
    for (const Loaded& t : change.taken) run_with(forget, {&t.source, &t.key});
    Statement remember(db_, "INSERT INTO " + std::string(kStateTable) +
                                " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)");
    sqlite3_stmt* s = remember.get();
    for (const Loaded& l : change.entries) {
      sqlite3_bind_text(s, 1, l.source.data(), static_cast<int>(l.source.size()), SQLITE_STATIC);
      sqlite3_bind_int64(s, 2, l.key_bytes);
      sqlite3_bind_text(s, 3, l.key.data(), static_cast<int>(l.key.size()), SQLITE_STATIC);
      sqlite3_bind_int64(s, 4, l.bytes);
      sqlite3_bind_int64(s, 5, l.lines);
      bind_optional(s, 6, l.header ? &l.host : nullptr);
      bind_optional(s, 7, l.date.empty() ? nullptr : &l.date);
      sqlite3_bind_int64(s, 8, l.first_loaded);
      if (step(s) != SQLITE_DONE) fail("cannot record what was loaded");
      sqlite3_reset(s);
    }
    // Last: an index made after a table's first load is built at once, not row by row.
    exec(event_time_indexes());
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
  [[noreturn]] void fail(const std::string& what) {
    throw ExportError(what + " in " + file_ + ": " + sqlite3_errmsg(db_));
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
  // Runs `statement` with the texts bound from parameter 2 on.
  void run_with(const Statement& statement, std::initializer_list<const std::string*> texts) {
    int i = 2;
    for (const std::string* t : texts) bind_optional(statement.get(), i++, t);
    step(statement);
    sqlite3_reset(statement.get());
  }
  static void bind_optional(sqlite3_stmt* s, int i, const std::string* text) {
    if (text == nullptr) {
      sqlite3_bind_null(s, i);
    } else {
      sqlite3_bind_text(s, i, text->data(), static_cast<int>(text->size()), SQLITE_STATIC);
    }
  }

  // Creates what is missing and prepares an insert per record type.
  void prepare() {
    std::string schema = "CREATE TABLE IF NOT EXISTS " + std::string(kStateTable) +
                         " (source TEXT NOT NULL, key_bytes INTEGER NOT NULL, key TEXT NOT NULL,"
                         " bytes INTEGER NOT NULL, lines INTEGER NOT NULL, host TEXT,"
                         " generation_date TEXT, first_loaded INTEGER NOT NULL) STRICT;\n";
    std::vector<std::pair<int, std::string>> inserts;
    for (const RecordType& type : record_catalogue()) {
      if (type.type == kHeaderType) continue;
      const std::string table = table_name(type.type);
      std::string insert = "INSERT INTO " + table + " VALUES (";
      schema += "CREATE TABLE IF NOT EXISTS " + table + " (";
      for (const RecordColumn& column : type.columns) {
        schema += column.name + (column.type == ValueType::kInteger ? " ANY, " : " TEXT, ");
        insert += "?,";
      }
      for (std::string_view extra : kExtraColumns) {
        schema.append(extra).append(" TEXT, ");
        insert += "?,";
      }
      schema.resize(schema.size() - 2);
      insert.back() = ')';
      schema += ") STRICT;\n";
      inserts.emplace_back(type.type, std::move(insert));
    }
    exec(schema);
    for (const auto& [type, insert] : inserts)
      inserts_[static_cast<size_t>(type)] = Statement(db_, insert);
    prepared_ = true;
  }

  std::string file_;
  sqlite3* db_ = nullptr;
  bool in_transaction_ = false;
  bool prepared_ = false;
  std::array<Statement, kRecordTypeLimit> inserts_;
  std::array<std::string, 32> scratch_;  // one per column: every bound text stays until the insert
};

Statement::Statement(sqlite3* db, const std::string& sql) {
  if (sqlite3_prepare_v3(db, sql.c_str(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT,
                         &s_, nullptr) != SQLITE_OK) {
    throw ExportError("cannot prepare " + sql + ": " + sqlite3_errmsg(db));
  }
}

}  // namespace

std::unique_ptr<Target> sqlite_target(const std::string& file) {
  return std::make_unique<SqliteTarget>(file);
}

}  // namespace adcdf::exporter
