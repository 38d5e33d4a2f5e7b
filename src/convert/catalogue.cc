#include "convert/catalogue.h"

#include <algorithm>
#include <charconv>

#include "convert/engine.h"
#include "convert/sections.h"
#include "record/recipients.h"

namespace adcdf {
namespace {

constexpr size_t kIntWidth = 11;   // an int written as a number: "-2147483648"
constexpr size_t kLongWidth = 20;  // a long

constexpr std::string_view kCommonNames[kCommonColumns] = {
    "record_type", "year_since_1900", "month", "day", "hour", "minute", "second", "epoch_seconds"};

bool is_integer(std::string_view text) {
  long value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc{} && end == text.data() + text.size();
}

RecordColumn describe(const Column& column, const ColumnName& name, std::span<const Field> fields,
                      size_t number) {
  RecordColumn out{std::string(name.name), false, 0, ValueType::kInteger, false, {}, false};
  auto field = [&](bool quoted) {
    out.quoted = quoted;
    out.width = fields[static_cast<size_t>(column.field)].limit;
    if (quoted || name.words) out.type = ValueType::kText;
  };
  auto fixed = [&](bool quoted, size_t width, bool number = false) {
    out.quoted = quoted;
    out.width = width;
    out.number = number;
    if (quoted) out.type = ValueType::kText;
  };
  switch (column.kind) {
    case Col::kText: {
      std::string_view text = column.text;
      out.quoted = text.size() >= 2 && text.front() == '"' && text.back() == '"';
      if (out.quoted) text = text.substr(1, text.size() - 2);
      out.name = "reserved_" + std::to_string(number);
      out.width = text.size();
      out.constant = true;
      out.value = text;
      if (out.quoted || !is_integer(text)) out.type = ValueType::kText;
      break;
    }
    case Col::kBare:
      field(false);
      break;
    case Col::kQuoted:
    case Col::kSpaced:
      field(true);
      break;
    case Col::kCount:
    case Col::kReason:
      fixed(false, kIntWidth, true);
      break;
    case Col::kCategory:
    case Col::kLocal:
    case Col::kGateway:
      fixed(false, 1, true);
      break;
    case Col::kAckReq:
      fixed(false, kAckReqLimit);
      break;
    case Col::kQueue:
      fixed(true, kQueueLimit);
      break;
    case Col::kRecip:
    case Col::kRecipSpaced:
      fixed(true, kRecipLimit);
      break;
  }
  return out;
}

// A record type with columns 1 to 8, the same in every record.
RecordType common(int type) {
  RecordType entry{type, {}};
  for (size_t i = 0; i < kCommonColumns; ++i) {
    entry.columns.push_back({std::string(kCommonNames[i]),
                             false,
                             i + 1 == kCommonColumns ? kLongWidth : kIntWidth,
                             ValueType::kInteger,
                             false,
                             {},
                             true});
  }
  return entry;
}

void add(std::vector<RecordType>& types, const Layout* layout, std::span<const Field> fields) {
  if (layout == nullptr) return;
  if (std::any_of(types.begin(), types.end(),
                  [&](const RecordType& t) { return t.type == layout->type; })) {
    return;
  }
  RecordType entry = common(layout->type);
  for (size_t i = 0; i < layout->columns.size(); ++i) {
    entry.columns.push_back(
        describe(layout->columns[i], layout->names[i], fields, kCommonColumns + i + 1));
  }
  types.push_back(std::move(entry));
}

// The header record: the host name, then the constants header_record() writes.
RecordType header() {
  RecordType entry = common(kHeaderType);
  entry.columns.push_back({"host", true, kHeaderHostWidth, ValueType::kText, false, {}, false});
  for (size_t from = 0; from <= kHeaderConstants.size();) {
    const size_t to = std::min(kHeaderConstants.find(',', from), kHeaderConstants.size());
    entry.columns.push_back(describe(text(kHeaderConstants.substr(from, to - from)), kReserved, {},
                                     entry.columns.size() + 1));
    from = to + 1;
  }
  return entry;
}

std::vector<RecordType> build() {
  std::vector<RecordType> types;
  for (const SectionKind& kind : kKinds) {
    if (kind.def == nullptr) continue;
    add(types, kind.def->section_record, kind.def->fields);
    add(types, kind.def->recipient_record, kind.def->fields);
  }
  types.push_back(header());
  std::sort(types.begin(), types.end(),
            [](const RecordType& a, const RecordType& b) { return a.type < b.type; });
  return types;
}

}  // namespace

std::span<const RecordType> record_catalogue() {
  static const std::vector<RecordType> catalogue = build();
  return catalogue;
}

}  // namespace adcdf
