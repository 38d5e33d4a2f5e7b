#include "support/tokenizer.h"

#include <charconv>
#include <cstdint>
#include <limits>

namespace adcdf {

bool scan_long(std::string_view& text, long& value) {
  size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) ++i;
  const bool negative = i < text.size() && text[i] == '-';
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  uint64_t magnitude = 0;
  const char* digits = text.data() + i;
  const auto [end, error] = std::from_chars(digits, text.data() + text.size(), magnitude);
  if (end == digits) return false;
  constexpr auto kMax = static_cast<uint64_t>(std::numeric_limits<long>::max());
  const uint64_t limit = negative ? kMax + 1 : kMax;
  if (error == std::errc::result_out_of_range || magnitude > limit) magnitude = limit;
  value = static_cast<long>(negative ? 0 - magnitude : magnitude);
  text.remove_prefix(static_cast<size_t>(end - text.data()));
  return true;
}

}  // namespace adcdf
