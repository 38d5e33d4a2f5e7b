// How CDF values become typed values and text a target accepts.
//
// Values arrive as bytes and are never changed: an integer column's value is an integer only in
// its plain form ("0", "-12", "48213"); anything else (" 34", "007", "8\r", "") stays text.
//
// Every target receives UTF-8. A value that is valid UTF-8 is written as it is. Any other byte
// b, and the NUL byte, become the private-use character U+EF00 + b; the bytes of a character
// that is itself in U+EF00..U+EFFF are written that way too, one by one. So every character in
// U+EF00..U+EFFF in a target stands for exactly one original byte (its code point minus 0xEF00),
// every other character for its own UTF-8 bytes, and the original bytes can always be had back.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace adcdf::exporter {

// The plain form of a 64-bit integer: no sign but '-', no leading zero, no blank.
bool parse_integer(std::string_view text, int64_t& value);

// True when every byte of `text` is ASCII and not NUL: such text needs no mapping.
bool plain_ascii(std::string_view text);

// `raw` as UTF-8, mapped as described above; `scratch` holds the result when it differs.
std::string_view utf8_text(std::string_view raw, std::string& scratch);

// Appends `text` (UTF-8) as a JSON string, quotes included.
void append_json_string(std::string& out, std::string_view text);

// The first and the last second of the years 1 to 9999, in seconds since 1970.
inline constexpr int64_t kFirstTime = -62135596800;
inline constexpr int64_t kLastTime = 253402300799;
// Days since 1970 of a "YYYY-MM-DD" date that format_date() made.
int64_t date_days(std::string_view date);

// "YYYY-MM-DD" of a civil date; false when the date does not exist or the year is not 1..9999.
bool format_date(int64_t year, int64_t month, int64_t day, char (&out)[11]);
// "YYYY-MM-DD hh:mm:ss" (with `separator` between date and time) of seconds since 1970 in UTC;
// false outside the years 1..9999.
bool format_utc(int64_t seconds, char separator, char (&out)[20]);

}  // namespace adcdf::exporter
