#include "export/splitter.h"

#include <algorithm>

#include "export/values.h"

namespace adcdf::exporter {
namespace {

// Whether `value` (quotes included) is one the column can hold.
bool fits(std::string_view value, const RecordColumn& column) {
  if (column.quoted) {
    if (value.size() < 2 || value.front() != '"' || value.back() != '"') return false;
    value = value.substr(1, value.size() - 2);
  }
  int64_t number;
  return value.size() <= column.width && (!column.constant || value == column.value) &&
         (!column.number || parse_integer(value, number));
}

std::string_view unquoted(std::string_view value, const RecordColumn& column) {
  return column.quoted ? value.substr(1, value.size() - 2) : value;
}

}  // namespace

Splitter::Splitter() {
  for (const RecordType& type : record_catalogue()) {
    by_type_[static_cast<size_t>(type.type)] = &type;
    size_t longest = type.columns.size() - 1;
    for (const RecordColumn& column : type.columns) longest += column.width + 2 * column.quoted;
    longest_[static_cast<size_t>(type.type)] = longest;
  }
}

const RecordType* Splitter::split(std::string_view line, std::vector<std::string_view>& values) {
  values.clear();
  size_t digits = 0;
  int code = 0;
  while (digits < line.size() && digits < 3 && line[digits] >= '0' && line[digits] <= '9') {
    code = code * 10 + (line[digits++] - '0');
  }
  if (digits == 0 || digits == line.size() || line[digits] != ',') return nullptr;
  const RecordType* type = by_type_[static_cast<size_t>(code)];
  if (type == nullptr || line.size() > longest_[static_cast<size_t>(code)]) return nullptr;

  commas_.clear();
  for (size_t i = digits; i < line.size(); ++i) {
    if (line[i] == ',') commas_.push_back(static_cast<int>(i));
  }
  const size_t n = type->columns.size();
  if (commas_.size() + 1 < n) return nullptr;
  if (commas_.size() + 1 == n) {
    size_t start = 0;
    for (size_t i = 0; i < n; ++i) {
      size_t end = i + 1 < n ? static_cast<size_t>(commas_[i]) : line.size();
      std::string_view value = line.substr(start, end - start);
      if (!fits(value, type->columns[i])) return nullptr;
      values.push_back(unquoted(value, type->columns[i]));
      start = end + 1;
    }
    return type;
  }
  return search(line, *type, values) ? type : nullptr;
}

// Counts the splits column by column: the ways each column can start, each a comma (or the
// start of the line) with the number of splits of the line before it. A column that starts in
// exactly one way remembers where the column before it started, which gives the values back
// once the whole line has exactly one split.
bool Splitter::search(std::string_view line, const RecordType& type,
                      std::vector<std::string_view>& values) {
  const std::vector<RecordColumn>& columns = type.columns;
  const int commas = static_cast<int>(commas_.size());
  auto start_of = [&](int comma) {
    return comma < 0 ? 0 : static_cast<size_t>(commas_[comma]) + 1;
  };
  steps_.resize(columns.size());
  steps_[0].assign(1, Step{-1, 1, -1});
  for (size_t c = 0; c + 1 < columns.size(); ++c) {
    next_.assign(static_cast<size_t>(commas), Step{0, 0, -1});
    const size_t longest = columns[c].width + 2 * columns[c].quoted;
    for (const Step& step : steps_[c]) {
      const size_t begin = start_of(step.start);
      for (int m = step.start + 1; m < commas; ++m) {
        const size_t end = static_cast<size_t>(commas_[m]);
        if (end - begin > longest) break;
        if (!fits(line.substr(begin, end - begin), columns[c])) continue;
        Step& reached = next_[static_cast<size_t>(m)];
        reached.ways = std::min(2, reached.ways + step.ways);
        reached.from = step.start;
      }
    }
    steps_[c + 1].clear();
    for (int m = 0; m < commas; ++m) {
      const Step& reached = next_[static_cast<size_t>(m)];
      if (reached.ways > 0) steps_[c + 1].push_back(Step{m, reached.ways, reached.from});
    }
  }
  int ways = 0;
  int last = -1;
  for (const Step& step : steps_.back()) {
    const size_t begin = start_of(step.start);
    if (fits(line.substr(begin), columns.back())) {
      ways += step.ways;
      last = step.start;
    }
  }
  if (ways != 1) return false;

  values.resize(columns.size());
  size_t end = line.size();
  for (size_t c = columns.size(); c-- > 0;) {
    const size_t begin = start_of(last);
    values[c] = unquoted(line.substr(begin, end - begin), columns[c]);
    end = begin - 1;
    for (const Step& step : steps_[c]) {
      if (step.start == last) {
        last = step.from;
        break;
      }
    }
  }
  return true;
}

}  // namespace adcdf::exporter
