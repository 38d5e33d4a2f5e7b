#include "support/tokenizer.h"

#include <limits>

namespace adcdf {

long parse_long(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  constexpr long kMin = std::numeric_limits<long>::min();
  constexpr long kMax = std::numeric_limits<long>::max();
  long acc = 0;  // kept negative so that the most negative value fits
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    int digit = text[i] - '0';
    if (acc < (kMin + digit) / 10) return negative ? kMin : kMax;
    acc = acc * 10 - digit;
  }
  if (negative) return acc;
  return acc == kMin ? kMax : -acc;
}

}  // namespace adcdf
