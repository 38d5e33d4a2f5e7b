// Where the exporter writes: CSV files, JSON Lines, SQLite or PostgreSQL.
//
// A target receives the rows of one run between begin() and commit(), and keeps, in the same
// place and committed with them, what it has loaded of each generation. A run that ends in any
// other way, an error or a kill, leaves the target as it was.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "convert/catalogue.h"

namespace adcdf::exporter {

// A failure the exporter cannot handle; the run stops, the target unchanged.
struct ExportError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// What a target has loaded of one generation. A generation is known by the hash of its first
// bytes, not by its name, which changes at every rotation.
struct Loaded {
  std::string source;     // the base it came from: "<host of the exporter>:<absolute base name>"
  int64_t key_bytes = 0;  // how many of its first bytes the key covers
  std::string key;        // their hash, in hexadecimal
  int64_t bytes = 0;      // how many bytes of it are loaded (whole lines)
  int64_t lines = 0;      // and how many lines
  bool header = false;    // a header record was read: host and date are from the last one
  std::string host;
  std::string date;          // "YYYY-MM-DD", empty when the header's date is no date
  int64_t first_loaded = 0;  // when it was first loaded, seconds since 1970
};

// What a run changes in the target's memory: the entries of its source replace all earlier
// ones of that source, and the entries of other sources that it took over (a base that moved)
// go.
struct LoadedChange {
  std::string source;
  std::vector<Loaded> entries;
  std::vector<Loaded> taken;
};

// One record: its type, its values (the bytes of the line, quotes removed) and what the header
// record of its generation said.
struct Row {
  const RecordType* type;
  std::span<const std::string_view> values;
  bool plain;               // every value is ASCII without NUL bytes: no value needs mapping
  const std::string* host;  // null when the generation has no header record
  const std::string* date;
};

class Target {
 public:
  virtual ~Target() = default;
  // Starts a run (for databases, a transaction) and returns what the target has loaded.
  virtual std::vector<Loaded> begin(const std::string& source) = 0;
  virtual void write(const Row& row) = 0;
  // Makes the run's rows and the change of what is loaded visible together.
  virtual void commit(const LoadedChange& change) = 0;
  // Discards what the run wrote.
  virtual void abandon() = 0;
};

std::unique_ptr<Target> csv_target(const std::string& directory);
std::unique_ptr<Target> jsonl_target(const std::string& file);  // "-": standard output
std::unique_ptr<Target> sqlite_target(const std::string& file);
std::unique_ptr<Target> postgres_target(const std::string& conninfo);

// The table (or CSV file name without ".csv") of a record type: "cdf_101".
std::string table_name(int type);
// The statements that index every table on its event time, where the index is missing.
std::string event_time_indexes();
// The columns every row has after the record's own.
inline constexpr std::string_view kExtraColumns[] = {"event_time", "host", "generation_date"};
// The state table of the databases.
inline constexpr std::string_view kStateTable = "ekadcdf_export_state";

}  // namespace adcdf::exporter
