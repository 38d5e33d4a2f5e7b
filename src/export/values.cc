#include "export/values.h"

#include <array>
#include <charconv>
#include <cstring>

namespace adcdf::exporter {
namespace {

constexpr uint64_t kHighBits = 0x8080808080808080ULL;
constexpr uint64_t kLowBits = 0x0101010101010101ULL;

// The length of the valid UTF-8 character at the start of `s` that is not NUL and not in
// U+EF00..U+EFFF, or 0.
size_t keepable(const unsigned char* s, size_t left) {
  const unsigned char c = s[0];
  if (c < 0x80) return c != 0 ? 1 : 0;
  size_t n;
  unsigned char low = 0x80, high = 0xBF;  // range of the second byte
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
    if (c == 0xE0) low = 0xA0;
    if (c == 0xED) high = 0x9F;  // no surrogates
    if (c == 0xEE) high = 0xBB;  // U+EF00..U+EFFF is EE BC..BF xx: the escape characters
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
    if (c == 0xF0) low = 0x90;
    if (c == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (left < n || s[1] < low || s[1] > high) return 0;
  for (size_t i = 2; i < n; ++i) {
    if ((s[i] & 0xC0) != 0x80) return 0;
  }
  return n;
}

using EscapeTable = std::array<std::string_view, 128>;

// Appends `text` with each ASCII byte that `escapes` has an entry for replaced by that entry.
void append_escaped(std::string& out, std::string_view text, const EscapeTable& escapes) {
  size_t done = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= escapes.size() || escapes[c].empty()) continue;
    out.append(text.data() + done, i - done).append(escapes[c]);
    done = i + 1;
  }
  out.append(text.data() + done, text.size() - done);
}

constexpr auto kControls = [] {
  std::array<std::array<char, 6>, 32> names{};
  for (size_t c = 0; c < names.size(); ++c) {
    names[c] = {'\\', 'u', '0', '0', "0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
  }
  return names;
}();

constexpr EscapeTable kJson = [] {
  EscapeTable t{};
  for (size_t c = 0; c < kControls.size(); ++c) t[c] = {kControls[c].data(), 6};
  t['"'] = "\\\"";
  t['\\'] = "\\\\";
  t['\n'] = "\\n";
  t['\r'] = "\\r";
  t['\t'] = "\\t";
  return t;
}();

// Days since 1970-01-01 of a civil date, and back (proleptic Gregorian calendar).
int64_t days_from_civil(int64_t y, int64_t m, int64_t d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

void civil_from_days(int64_t z, int64_t& y, int64_t& m, int64_t& d) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp < 10 ? mp + 3 : mp - 9;
  y = yoe + era * 400 + (m <= 2);
}

void put(char* out, int64_t value, int width) {
  for (int i = width - 1; i >= 0; --i, value /= 10) out[i] = static_cast<char>('0' + value % 10);
}

}  // namespace

bool parse_integer(std::string_view text, int64_t& value) {
  if (text.empty()) return false;
  const size_t digits = text[0] == '-' ? 1 : 0;
  if (digits == text.size() || (text[digits] == '0' && text.size() != 1)) return false;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc{} && end == text.data() + text.size();
}

bool plain_ascii(std::string_view text) {
  const char* p = text.data();
  size_t n = text.size();
  for (; n >= 8; p += 8, n -= 8) {
    uint64_t word;
    std::memcpy(&word, p, 8);
    if (((word | ((word - kLowBits) & ~word)) & kHighBits) != 0) return false;
  }
  for (; n > 0; ++p, --n) {
    if (*p == 0 || (*p & 0x80) != 0) return false;
  }
  return true;
}

std::string_view utf8_text(std::string_view raw, std::string& scratch) {
  if (plain_ascii(raw)) return raw;
  const auto* s = reinterpret_cast<const unsigned char*>(raw.data());
  size_t at = 0;
  size_t n = 0;
  while (at < raw.size() && (n = keepable(s + at, raw.size() - at)) != 0) at += n;
  if (at == raw.size()) return raw;
  scratch.assign(raw.data(), at);
  while (at < raw.size()) {
    n = keepable(s + at, raw.size() - at);
    if (n != 0) {
      scratch.append(raw.data() + at, n);
      at += n;
    } else {
      const unsigned char b = s[at++];
      const char escape[3] = {'\xEE', static_cast<char>(0xBC | (b >> 6)),
                              static_cast<char>(0x80 | (b & 0x3F))};
      scratch.append(escape, 3);
    }
  }
  return scratch;
}

void append_json_string(std::string& out, std::string_view text) {
  out.push_back('"');
  append_escaped(out, text, kJson);
  out.push_back('"');
}

int64_t date_days(std::string_view date) {
  auto number = [date](size_t at, size_t digits) {
    int64_t n = 0;
    for (size_t i = at; i < at + digits; ++i) n = n * 10 + (date[i] - '0');
    return n;
  };
  return days_from_civil(number(0, 4), number(5, 2), number(8, 2));
}

bool format_date(int64_t year, int64_t month, int64_t day, char (&out)[11]) {
  if (year < 1 || year > 9999 || month < 1 || month > 12 || day < 1 || day > 31) return false;
  int64_t y, m, d;
  civil_from_days(days_from_civil(year, month, day), y, m, d);
  if (d != day) return false;  // 31 April and the like
  put(out, year, 4);
  out[4] = '-';
  put(out + 5, month, 2);
  out[7] = '-';
  put(out + 8, day, 2);
  out[10] = '\0';
  return true;
}

bool format_utc(int64_t seconds, char separator, char (&out)[20]) {
  constexpr int64_t kDay = 86400;
  if (seconds < kFirstTime || seconds > kLastTime) return false;
  int64_t days = seconds / kDay, rest = seconds % kDay;
  if (rest < 0) {
    rest += kDay;
    --days;
  }
  int64_t y, m, d;
  civil_from_days(days, y, m, d);
  char date[11];
  format_date(y, m, d, date);
  std::memcpy(out, date, 10);
  out[10] = separator;
  put(out + 11, rest / 3600, 2);
  out[13] = ':';
  put(out + 14, rest / 60 % 60, 2);
  out[16] = ':';
  put(out + 17, rest % 60, 2);
  out[19] = '\0';
  return true;
}

}  // namespace adcdf::exporter
