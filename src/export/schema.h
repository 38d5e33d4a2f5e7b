// The tables of the database targets, SQLite and PostgreSQL: one per record type, the state
// table that remembers what was loaded, their indexes, and the changes that bring the tables
// of an older exporter up to date. Every statement can run again without harm.
#pragma once

#include <string>
#include <string_view>

#include "convert/catalogue.h"

namespace adcdf::exporter {

enum class Dialect { kSqlite, kPostgres };

// The table (or CSV file name without ".csv") of a record type: "cdf_101".
std::string table_name(int type);

// The columns every row has after the record's own: where and when, then where it came from
// (the generation's number in this target and the record's line number in the generation).
inline constexpr std::string_view kExtraColumns[] = {"event_time", "host", "generation_date",
                                                     "generation_id", "line_number"};
// The state table of the databases, and the sequence PostgreSQL numbers generations with.
inline constexpr std::string_view kStateTable = "ekadcdf_export_state";
inline constexpr std::string_view kGenerationSequence = "ekadcdf_export_generation_id";
// The state table's columns, in the order of its rows.
inline constexpr std::string_view kStateColumns =
    "id, source, key_bytes, key, bytes, lines, host, generation_date, first_loaded";

// The names of a table's columns, the record's then kExtraColumns, each followed by `separator`.
std::string column_list(const RecordType& type, std::string_view separator);

// Creates what is missing: the state table and a table per record type.
std::string create_tables(Dialect dialect);
// Adds to a state table of an older exporter its `id` column, numbering its entries.
std::string upgrade_state(Dialect dialect);
// Adds to a record table of an older exporter its origin columns.
std::string upgrade_table(Dialect dialect, const std::string& table);
// Indexes every table on its event time, where the index is missing. PostgreSQL builds them
// at the end of a load that created the tables, at once from the rows; SQLite before the rows.
std::string create_indexes(Dialect dialect);

// Per generation number, the rows of every table with their distinct line numbers and their sum.
std::string origins_query();

// Calls `f` with each record type that has a table (every type but the header's).
template <typename F>
void for_each_table(F&& f) {
  for (const RecordType& type : record_catalogue()) {
    if (type.type != kHeaderType) f(type);
  }
}

}  // namespace adcdf::exporter
