// Where the exporter writes: CSV files, JSON Lines, SQLite or PostgreSQL.
//
// A target receives the rows of one run between begin() and commit(), and keeps, in the same
// place and committed with them, what it has loaded of each generation. A run that ends in any
// other way, an error or a kill, leaves the target as it was.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "convert/catalogue.h"
#include "export/schema.h"
#include "support/error.h"

namespace adcdf::exporter {

// What the exporter cannot go on from throws the project's AdcdfError: a file operation's
// (support/files.h), or one of its own in kGroupExport, whose reason says whether waiting cures
// it. Nothing of a failed run is kept.
[[noreturn]] inline void raise_export_error(const std::string& text,
                                            ErrorReason reason = kReasonRefused) {
  throw AdcdfError(kGroupExport, reason, text);
}

// What a target has loaded of one generation. A generation is known by the hash of its first
// bytes, not by its name, which changes at every rotation, nor by the path of its base.
struct Loaded {
  int64_t id = 0;         // its number in the target, fixed when first loaded; 0: none yet
  std::string source;     // where it was last loaded from: "<host>:<absolute base name>"
  int64_t key_bytes = 0;  // how many of its first bytes the key covers
  std::string key;        // their hash, in hexadecimal
  int64_t bytes = 0;      // how many bytes of it are loaded (whole lines)
  int64_t lines = 0;      // and how many lines
  bool header = false;    // a header record was read: host and date are from the last one
  std::string host;
  std::string date;          // "YYYY-MM-DD", empty when the header's date is no date
  int64_t first_loaded = 0;  // when it was first loaded, seconds since 1970
};

// What a run changes in the target's memory: entries written (replacing those with the same
// id) and entries forgotten.
struct LoadedChange {
  std::vector<Loaded> entries;
  std::vector<int64_t> forgotten;
};

// One record: its type, its values (the bytes of the line, quotes removed), what the header
// record of its generation said, and where it came from.
struct Row {
  const RecordType* type;
  std::span<const std::string_view> values;
  bool plain;               // every value is ASCII without NUL bytes: no value needs mapping
  const std::string* host;  // null when the generation has no header record
  const std::string* date;
  int64_t generation;  // Loaded::id
  int64_t line;        // the line number in the generation, from 1
};

// The rows a target holds of one generation.
struct Origins {
  int64_t rows = 0;
  int64_t lines = 0;     // distinct line numbers among them
  int64_t line_sum = 0;  // the sum of their line numbers
  bool operator==(const Origins&) const = default;
};

class Target {
 public:
  virtual ~Target() = default;
  // Starts a run (for databases, a transaction) and returns what the target has loaded. Runs
  // that share one of `locks` (content keys of generations) never overlap.
  virtual std::vector<Loaded> begin(const std::vector<std::string>& locks) = 0;
  // A number for a generation first loaded in this run, unique in the target.
  virtual int64_t new_id() = 0;
  virtual void write(const Row& row) = 0;
  // Makes the run's rows and the change of what is loaded visible together.
  virtual void commit(const LoadedChange& change) = 0;
  // Discards what the run wrote.
  virtual void abandon() = 0;
  // Between begin() and abandon(): per generation number, the rows the target holds.
  virtual std::map<int64_t, Origins> origins() = 0;
};

std::unique_ptr<Target> csv_target(const std::string& directory);
std::unique_ptr<Target> jsonl_target(const std::string& file);  // "-": standard output
std::unique_ptr<Target> sqlite_target(const std::string& file);
std::unique_ptr<Target> postgres_target(const std::string& conninfo);

}  // namespace adcdf::exporter
