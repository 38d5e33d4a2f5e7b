// Where a restart resumes: the newest record already in the output generations.
//
// The last line of <base>.000 is read back as eight integers (record type, the event's date and
// time, its time in seconds), the way the record prefix writes them. The checkpoint and the last
// section's date, though, come from the newest converted record: the last complete line of
// <base>.000 that parses and is not a type-999 header record or, when there is none, the last
// such line of the lowest-numbered older generation that holds one. So a restart never converts
// the audit file again from its start just because the current generation is new or empty.
//
// Files are read backwards from their end, so start-up time does not depend on their size.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "stream/header_record.h"
#include "support/files.h"

namespace adcdf {

// The eight values of a record prefix: each a decimal number after optional white space and
// sign, clamped to 64 bits; the first seven cut to an int as "%d" cuts them, the event time kept
// whole.
struct PrefixValues {
  std::array<long, 8> values{};  // type, year, month, day, hour, minute, second, event time
  int count = 0;                 // how many were parsed before the first mismatch

  bool complete() const { return count == 8; }
  bool is_header() const { return complete() && values[0] == kHeaderType; }
};

PrefixValues parse_prefix(std::string_view line);

// Reads the complete lines of a file from its end towards its start. Bytes after the last line
// feed (a line cut off by a crash) are not a line.
class ReverseLineReader {
 public:
  explicit ReverseLineReader(const File& file);
  // Offset just past the last line feed: where the complete lines end.
  long long complete_end() const { return complete_end_; }
  std::optional<std::string> previous();

 private:
  // Offset of the last line feed before `end`, or -1.
  long long find_newline_before(long long end);

  const File& file_;
  long long complete_end_;
  long long next_end_;  // the unread lines end here
};

// The newest converted record of a generation, if it holds one.
std::optional<PrefixValues> newest_record(const File& file);

}  // namespace adcdf
