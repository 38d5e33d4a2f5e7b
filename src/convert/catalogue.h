// The record catalogue: every record type the daemon writes, with its columns in order, as the
// converter tables define them. The exporter splits and loads records with it, and the record
// reference (docs/records.md) is checked against it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "stream/header_record.h"

namespace adcdf {

// The type a loader gives a column. Values that are not the plain form of an integer are still
// kept as the text they are.
enum class ValueType : uint8_t { kInteger, kText };

struct RecordColumn {
  std::string name;  // "reserved_<column>" for a constant column
  bool quoted;       // written between double quotes
  size_t width;      // the most bytes its value holds, quotes not counted
  ValueType type;
  bool constant;      // always holds `value`
  std::string value;  // the constant, without quotes
  bool number;        // always a plain integer: a number the daemon formats itself
};

struct RecordType {
  int type;
  std::vector<RecordColumn> columns;  // from column 1 on
};

// Every type code is below this, so tables by type code can be arrays.
inline constexpr size_t kRecordTypeLimit = 1000;

// Columns 1 to 8, the same in every record.
inline constexpr size_t kCommonColumns = 8;

// Every record type, by increasing type code (the header record last).
std::span<const RecordType> record_catalogue();

}  // namespace adcdf
