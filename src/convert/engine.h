// The converter engine: one loop for every section type, driven by a table per converter.
//
// A converter is data. Its fields (the values a section can carry, with their limits and whether
// they start as "0" or empty), its keyword table (the texts a line may start with, in the order
// they are tried, and how each line's value is taken), its counter and when it counts, and its
// record layouts: one record per section, one per recipient, or both.
//
// run_converter() does what every converter does: trace, set the fields to their initial
// values, count, read the header (a skipped section ends here), then read lines until the blank
// line. A line is matched by prefix against the keywords in order, the first match winning;
// unmatched lines go to the error file as skipped lines. At the blank line the records are
// formatted into the section's output. Nothing reaches a file until the processing loop commits
// the section (or, for a section too large to keep in memory, until it has been read to its
// blank line; see commit.h), and a section abandoned at a stop is not counted.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "record/recipients.h"
#include "record/record_writer.h"
#include "stream/context.h"

namespace adcdf {

enum class Take : uint8_t {
  kItem,            // word 2 into the field
  kVarstring,       // the rest of the line, escapes removed
  kMta,             // the rest of the line, backslashes kept
  kAddress,         // the rest of the line as a cleaned address
  kFirstAddress,    // the same, but only from the section's first such line
  kYes,             // the field becomes "yes"; the value is not looked at
  kCount,           // counts the line (recipients of the gateway sections)
  kIgnore,          // recognised; the value is not used
  kRecipient,       // stores a recipient from this line
  kRecipientInfo,   // stores a recipient from this line and the two after it
  kDeliveryReason,  // the rest of the line; also the reason of the last recipient stored
  kSignonUser,      // user number, mail-system name and two user names, from four fields on
  kNumberAndName,   // word 2 into the field, the address from word 3 into field2
  kScanUser,        // writes the user collected so far, then takes the next user's address
  kTray,            // a tray's count and size, into the tray fields from `field` on
};

struct Keyword {
  std::string_view text;
  Take take;
  int field = -1;
  int field2 = -1;
  size_t copy_limit = 0;  // kNumberAndName: the line is first cut to this many characters
};

struct Field {
  size_t limit;  // the most characters the value holds
  bool numeric;  // starts as "0" (a bare column) rather than empty
};

// What a record column holds; the columns of the recipient in hand come last, from kCategory.
enum class Col : uint8_t {
  kText,         // a constant, written as it stands
  kBare,         // a field, bare
  kQuoted,       // a field, quoted
  kSpaced,       // a field, quoted; an empty value becomes a single blank first
  kCount,        // the number of recipient lines, as a number
  kCategory,     // the recipient's category, bare
  kAckReq,       // the recipient's acknowledgement request, bare
  kQueue,        // the recipient's queue, quoted
  kRecip,        // the recipient's address, quoted
  kRecipSpaced,  // the same, a single blank when empty
  kLocal,        // 1 when the recipient's queue is local, else 0
  kGateway,      // 1 when the recipient's queue is a gateway's, else 0
  kReason,       // the recipient's non-delivery reason, as a number
};

struct Column {
  Col kind;
  int field = -1;
  std::string_view text = {};
};

constexpr Column text(std::string_view t) {
  return {Col::kText, -1, t};
}
constexpr Column bare(int f) {
  return {Col::kBare, f};
}
constexpr Column quoted(int f) {
  return {Col::kQuoted, f};
}
constexpr Column spaced(int f) {
  return {Col::kSpaced, f};
}
constexpr Column col(Col kind) {
  return {kind};
}
inline constexpr Column kZero = text("0");
inline constexpr Column kEmpty = text("\"\"");

// Joins two tables, for twins whose tables share a beginning.
template <typename T, size_t N, size_t M>
constexpr std::array<T, N + M> join(const std::array<T, N>& head, const std::array<T, M>& tail) {
  std::array<T, N + M> joined{};
  for (size_t i = 0; i < N; ++i) joined[i] = head[i];
  for (size_t i = 0; i < M; ++i) joined[N + i] = tail[i];
  return joined;
}

// What a loader calls a column. A column without a name is reserved: it always holds the same
// constant. `words` marks a bare column whose values are words rather than numbers.
struct ColumnName {
  std::string_view name;
  bool words = false;
};
inline constexpr ColumnName kReserved{};
constexpr ColumnName words(std::string_view name) {
  return {name, true};
}

struct Layout {
  int type;
  std::span<const Column> columns;    // from column 9 on
  std::span<const ColumnName> names;  // one per column
};

// A layout with its column names, checked when compiling: one name per column, and a name for
// every column but the constant ones.
template <typename Columns, typename Names>
consteval Layout named(int type, const Columns& columns, const Names& names) {
  std::span<const Column> c(columns);
  std::span<const ColumnName> n(names);
  if (c.size() != n.size()) throw "a record layout needs one name per column";
  for (size_t i = 0; i < c.size(); ++i) {
    if (n[i].name.empty() != (c[i].kind == Col::kText)) {
      throw "constant columns are reserved, every other column has a name";
    }
  }
  return {type, c, n};
}

enum class Counting : uint8_t {
  kBeforeHeader,  // counted before its header is read: sections before the checkpoint count
  kAfterHeader,   // counted once the header has been read and accepted
  kPassedOver,    // no header: its lines are passed over to the blank line, then it is counted
};
enum class RecipientArrayUse : uint8_t { kNone, kBeforeHeader, kAfterHeader };

// The keywords of a converter by their first character, so that a line is compared only with
// the keywords that can match it, still in the table's order (the first match wins).
class KeywordIndex {
 public:
  static constexpr size_t kMostKeywords = 64;

  constexpr explicit KeywordIndex(std::span<const Keyword> keywords) : keywords_(keywords) {
    if (keywords.size() > kMostKeywords) throw "too many keywords for the index";
    std::array<uint8_t, 256> last{};
    for (size_t i = 0; i < keywords.size(); ++i) {
      if (keywords[i].text.empty()) throw "an empty keyword";
      const auto c = static_cast<unsigned char>(keywords[i].text[0]);
      const auto number = static_cast<uint8_t>(i + 1);
      if (last[c] == 0) {
        first_[c] = number;
      } else {
        next_[last[c] - 1] = number;
      }
      last[c] = number;
    }
  }

  // The first keyword `line` begins with, or null.
  const Keyword* match(std::string_view line) const {
    if (line.empty()) return nullptr;
    for (uint8_t i = first_[static_cast<unsigned char>(line[0])]; i != 0; i = next_[i - 1]) {
      const Keyword& keyword = keywords_[i - 1];
      if (begins_with(line, keyword.text)) return &keyword;
    }
    return nullptr;
  }

 private:
  // Keywords are short: comparing in line beats a library call.
  static bool begins_with(std::string_view line, std::string_view keyword) {
    if (line.size() < keyword.size()) return false;
    for (size_t i = 1; i < keyword.size(); ++i) {
      if (line[i] != keyword[i]) return false;
    }
    return true;  // the first character is the one looked up
  }

  std::span<const Keyword> keywords_;
  std::array<uint8_t, 256> first_{};           // 1 + the first keyword with this first character
  std::array<uint8_t, kMostKeywords> next_{};  // 1 + the next keyword with the same one
};

// The most characters the columns of a converter's records take, the commas included (the
// type and the event's columns aside): what a field holds is cut to its limit, a recipient's
// values to theirs, a number takes at most kNumberBytes.
constexpr size_t record_bound_of(std::span<const Field> fields,
                                 std::initializer_list<const Layout*> layouts) {
  size_t most = 0;
  for (const Layout* layout : layouts) {
    if (layout == nullptr) continue;
    size_t bound = 0;
    for (const Column& column : layout->columns) {
      switch (column.kind) {
        case Col::kText:
          bound += column.text.size() + 1;
          break;
        case Col::kBare:
        case Col::kQuoted:
        case Col::kSpaced:
          if (column.field < 0 || static_cast<size_t>(column.field) >= fields.size()) {
            throw "a column names a field the converter does not have";
          }
          bound += fields[static_cast<size_t>(column.field)].limit + 8;
          break;
        case Col::kCount:
        case Col::kReason:
          bound += kNumberBytes + 1;
          break;
        case Col::kCategory:
        case Col::kAckReq:
        case Col::kLocal:
        case Col::kGateway:
          bound += 8;
          break;
        case Col::kQueue:
        case Col::kRecip:
        case Col::kRecipSpaced:
          bound += 1024;  // a queue holds at most 127 characters, an address 849
          break;
      }
    }
    most = std::max(most, bound);
  }
  return most;
}

struct ConverterDef {
  std::string_view name;
  Counting counting;
  std::span<const Field> fields = {};
  std::span<const Keyword> keywords = {};
  const Layout* section_record = nullptr;    // once at the blank line (and per user, kScanUser)
  const Layout* recipient_record = nullptr;  // once per stored recipient, after the section's
  RecipientArrayUse recipients = RecipientArrayUse::kNone;
  int alloc_status = 105;      // exit status when the recipient array cannot be created
  int grow_status = 103;       // exit status when it cannot grow
  bool announce_read = false;  // "Starting record read..." once the array exists
  KeywordIndex index{keywords};
  size_t record_bound = record_bound_of(fields, {section_record, recipient_record});
};

inline constexpr int kTrays = 5;

// Whether a converter's tables fit the engine: every field a keyword or a column names exists
// (a keyword that stores nothing names none), the four user fields and the ten tray fields lie
// where the engine looks for them, a converter that keeps recipients has a recipient record, and
// a section record names no recipient column.
// Evaluated through checked() over each table, so a table that does not fit does not compile.
constexpr bool well_formed(const ConverterDef& def) {
  auto in_range = [&](int field, int count) {
    return field >= 0 &&
           static_cast<size_t>(field) + static_cast<size_t>(count) <= def.fields.size();
  };
  for (const Keyword& k : def.keywords) {
    switch (k.take) {
      case Take::kCount:
      case Take::kIgnore:
      case Take::kRecipient:
      case Take::kRecipientInfo:
        if (k.field != -1) return false;
        break;
      case Take::kSignonUser:
        if (!in_range(k.field, 4)) return false;
        break;
      case Take::kNumberAndName:
        if (!in_range(k.field, 1) || !in_range(k.field2, 1) || k.copy_limit == 0) return false;
        break;
      case Take::kTray:
        if (!in_range(k.field, 2 * kTrays) || !in_range(k.field2, 1)) return false;
        if (k.field2 >= k.field && k.field2 < k.field + 2 * kTrays) return false;
        break;
      case Take::kScanUser:
        if (!in_range(k.field, 1) || def.section_record == nullptr) return false;
        break;
      default:
        if (!in_range(k.field, 1)) return false;
        break;
    }
  }
  const std::pair<const Layout*, bool> layouts[] = {{def.section_record, true},
                                                    {def.recipient_record, false}};
  for (const auto& [layout, of_section] : layouts) {
    if (layout == nullptr) continue;
    for (const Column& column : layout->columns) {
      bool names_field =
          column.kind == Col::kBare || column.kind == Col::kQuoted || column.kind == Col::kSpaced;
      if (names_field != (column.field != -1)) return false;
      if (names_field && !in_range(column.field, 1)) return false;
      // The section's own record is written without a recipient.
      if (of_section && column.kind >= Col::kCategory) return false;
    }
  }
  const bool keeps_recipients = def.recipients != RecipientArrayUse::kNone;
  return keeps_recipients == (def.recipient_record != nullptr) &&
         (def.counting != Counting::kPassedOver || def.keywords.empty());
}

// `def`, once it is well formed: the converter files define their tables through it.
consteval ConverterDef checked(const ConverterDef& def) {
  if (!well_formed(def)) throw "the converter's tables do not fit the engine";
  return def;
}

// The working storage of the converters: the values of the section in hand and its recipients.
// It is reused from one section to the next, so converting does not allocate once it has grown;
// nothing in it is read before a section has set it.
struct ConverterWork {
  std::vector<std::string> values;
  RecipientStore recipients;
  std::string event;       // the section's event columns, formatted once for all its records
  int count = 0;           // recipient lines seen
  bool got_first = false;  // a kFirstAddress value has been taken
};

// Converts the section whose name line has just been read, counting it in `counter`.
void run_converter(Context& ctx, const ConverterDef& def, int& counter, ConverterWork& work);

}  // namespace adcdf
