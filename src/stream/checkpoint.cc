#include "stream/checkpoint.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "support/tokenizer.h"

namespace adcdf {

constexpr size_t kChunk = 64 * 1024;

PrefixValues parse_prefix(std::string_view line) {
  PrefixValues parsed;
  for (int i = 0; i < 8; ++i) {
    if (i > 0) {
      if (line.empty() || line.front() != ',') break;
      line.remove_prefix(1);
    }
    long value = 0;
    if (!scan_long(line, value)) break;
    // "%d" keeps the low 32 bits of the record type and the date and time columns; the event
    // time keeps all of them.
    parsed.values[static_cast<size_t>(i)] =
        i < 7 ? static_cast<int>(static_cast<uint32_t>(static_cast<uint64_t>(value))) : value;
    parsed.count = i + 1;
  }
  return parsed;
}

ReverseLineReader::ReverseLineReader(const File& file) : file_(file) {
  long long size = file.size();
  complete_end_ = find_newline_before(size) + 1;
  next_end_ = complete_end_;
}

long long ReverseLineReader::find_newline_before(long long end) {
  char buffer[kChunk];
  while (end > 0) {
    long long start = std::max(0LL, end - static_cast<long long>(kChunk));
    size_t length = static_cast<size_t>(end - start);
    size_t got = file_.read_at(buffer, length, start);
    if (got < length) length = got;  // the file shrank meanwhile; look at what is there
    const void* hit = memrchr(buffer, '\n', length);
    if (hit != nullptr) return start + (static_cast<const char*>(hit) - buffer);
    end = start;
  }
  return -1;
}

std::optional<std::string> ReverseLineReader::previous() {
  if (next_end_ <= 0) return std::nullopt;
  long long newline = next_end_ - 1;  // the line feed that ends this line
  long long begin = find_newline_before(newline) + 1;
  std::string line(static_cast<size_t>(newline - begin), '\0');
  size_t got = file_.read_at(line.data(), line.size(), begin);
  line.resize(got);
  next_end_ = begin;
  return line;
}

std::optional<PrefixValues> newest_record(const File& file) {
  ReverseLineReader reader(file);
  while (auto line = reader.previous()) {
    PrefixValues values = parse_prefix(*line);
    if (values.complete() && !values.is_header()) return values;
  }
  return std::nullopt;
}

}  // namespace adcdf
