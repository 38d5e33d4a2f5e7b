// Cutting values out of keyword lines.
//
// A line is split into words at blanks only (a tab is an ordinary character). Word 1 is the
// keyword. adcdf_get_item takes one word; the varstring routines take everything from the word
// at `pos` to the newline, keeping inner, trailing and extra leading blanks. Backslash escapes
// are removed from varstrings (not from the mta variant) and, twice, from addresses, which are
// also upper-cased under the upshift rule and end with one appended blank.
//
// Every destination has a limit, the most characters it holds. A value is cut the way a
// bounded copy cuts it: a word to its first `limit` characters; a varstring to its first `limit`
// raw characters, before escapes are removed; an address keeps room for its appended blank.
// Destinations are std::strings reused across lines: once grown, they no longer allocate.
//
// Each routine writes its own entry and exit trace lines.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

#include "support/trace.h"

namespace adcdf {

struct FieldRules {
  Tracer& trace;
  bool upshift;
};

// Capacity of the work buffer an address passes through before it is cleaned.
constexpr size_t kAddressWorkLimit = 849;

void adcdf_get_item(const FieldRules& rules, std::string_view source, int pos, std::string& dest,
                    size_t limit);
void adcdf_get_varstring(const FieldRules& rules, std::string_view source, int pos,
                         std::string& dest, size_t limit);
void adcdf_get_varstring_mta(const FieldRules& rules, std::string_view source, int pos,
                             std::string& dest, size_t limit);
void adcdf_get_address(const FieldRules& rules, std::string_view source, int pos, std::string& dest,
                       size_t limit);
// `source` may be a view of `dest`: the address is cleaned in place.
void adcdf_clean_address(const FieldRules& rules, std::string_view source, std::string& dest,
                         size_t limit);
void adcdf_special_processing(Tracer& trace, std::string& text);

// `value` cut to its first `limit` characters, into `dest`.
inline void assign_cut(std::string& dest, std::string_view value, size_t limit) {
  dest.assign(value.data(), std::min(value.size(), limit));
}

// a-z to A-Z; every other byte unchanged, whatever the locale.
inline char upper_ascii(char c) {
  return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c;
}

}  // namespace adcdf
