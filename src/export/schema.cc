#include "export/schema.h"

namespace adcdf::exporter {
namespace {

struct Types {
  const char* integer;  // a column the daemon writes integers in
  const char* text;
  const char* number;  // a count or an identifier of our own
  const char* time;
  const char* date;
  const char* table_end;  // after a table's columns
};

const Types& types(Dialect dialect) {
  static const Types kSqlite{"ANY", "TEXT", "INTEGER", "TEXT", "TEXT", ") STRICT"};
  static const Types kPostgres{"bigint",      "text", "bigint",
                               "timestamptz", "date", ", verbatim jsonb)"};
  return dialect == Dialect::kSqlite ? kSqlite : kPostgres;
}

// The narrowest PostgreSQL integer type for the column's width: a value the daemon prints with
// %d (11 characters at most) is an integer; one that does not fit goes to `verbatim`.
const char* postgres_integer(const RecordColumn& column) {
  return column.width <= 4 ? "smallint" : column.width <= 11 ? "integer" : "bigint";
}

}  // namespace

std::string table_name(int type) {
  return "cdf_" + std::to_string(type);
}

std::string column_list(const RecordType& type, std::string_view separator) {
  std::string list;
  for (const RecordColumn& column : type.columns) list.append(column.name).append(separator);
  for (std::string_view extra : kExtraColumns) list.append(extra).append(separator);
  return list;
}

std::string create_tables(Dialect dialect) {
  const Types& t = types(dialect);
  const std::string n = t.number;
  std::string sql = "CREATE TABLE IF NOT EXISTS " + std::string(kStateTable) + " (id " + n +
                    " NOT NULL, source " + t.text + " NOT NULL, key_bytes " + n +
                    " NOT NULL, key " + t.text + " NOT NULL, bytes " + n + " NOT NULL, lines " + n +
                    " NOT NULL, host " + t.text + ", generation_date " + t.date +
                    ", first_loaded " + n + " NOT NULL" +
                    (dialect == Dialect::kSqlite ? ") STRICT;\n" : ");\n");
  if (dialect == Dialect::kPostgres) {
    sql += "CREATE SEQUENCE IF NOT EXISTS " + std::string(kGenerationSequence) + ";\n";
  }
  for_each_table([&](const RecordType& type) {
    sql += "CREATE TABLE IF NOT EXISTS " + table_name(type.type) + " (";
    for (const RecordColumn& column : type.columns) {
      sql += column.name + " " +
             (column.type == ValueType::kText ? t.text
              : dialect == Dialect::kSqlite   ? t.integer
                                              : postgres_integer(column)) +
             ", ";
    }
    sql += "event_time " + std::string(t.time) + ", host " + t.text + ", generation_date " +
           t.date + ", generation_id " + n + ", line_number " + n + t.table_end + ";\n";
  });
  return sql;
}

std::string upgrade_state(Dialect dialect) {
  const std::string state(kStateTable);
  if (dialect == Dialect::kSqlite) {
    return "ALTER TABLE " + state + " ADD COLUMN id INTEGER NOT NULL DEFAULT 0;\nUPDATE " + state +
           " SET id = rowid;\n";
  }
  return "CREATE SEQUENCE IF NOT EXISTS " + std::string(kGenerationSequence) + ";\nALTER TABLE " +
         state + " ADD COLUMN IF NOT EXISTS id bigint;\nUPDATE " + state + " SET id = nextval('" +
         std::string(kGenerationSequence) + "') WHERE id IS NULL;\n" + "ALTER TABLE " + state +
         " ALTER COLUMN id SET NOT NULL;\n";
}

std::string upgrade_table(Dialect dialect, const std::string& table) {
  const char* n = types(dialect).number;
  const char* if_missing = dialect == Dialect::kPostgres ? "IF NOT EXISTS " : "";
  std::string sql;
  for (const char* column : {"generation_id", "line_number"}) {
    sql += "ALTER TABLE " + table + " ADD COLUMN " + if_missing + column + " " + n + ";\n";
  }
  return sql;
}

std::string create_indexes(Dialect dialect) {
  // PostgreSQL: a block range index, since rows arrive in about the order of their event time:
  // built in one pass without sorting, and a few pages whatever the table's size.
  const char* method = dialect == Dialect::kPostgres ? " USING brin" : "";
  std::string sql;
  for_each_table([&](const RecordType& type) {
    const std::string table = table_name(type.type);
    sql += "CREATE INDEX IF NOT EXISTS " + table + "_event_time ON " + table + method +
           " (event_time);\n";
  });
  return sql;
}

std::string origins_query() {
  std::string rows;
  for_each_table([&](const RecordType& type) {
    rows += (rows.empty() ? "" : " UNION ALL ") +
            std::string(
                "SELECT generation_id, line_number "
                "FROM ") +
            table_name(type.type);
  });
  return "SELECT generation_id, count(*), count(DISTINCT line_number), "
         "coalesce(sum(line_number), 0) FROM (" +
         rows + ") AS every_row WHERE generation_id IS NOT NULL GROUP BY generation_id";
}

}  // namespace adcdf::exporter
