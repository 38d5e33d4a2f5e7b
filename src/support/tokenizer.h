// Word splitting with the behaviour of the C library's strtok, over a string_view.
//
// Each call to next() skips any delimiters, takes the characters up to the next delimiter as
// the token and consumes that single delimiter; at the end of the text it yields nothing.
// Because it never writes into the text, callers can split the same line as often as they like.
#pragma once

#include <optional>
#include <string_view>

namespace adcdf {

class Tokenizer {
 public:
  explicit Tokenizer(std::string_view text) : rest_(text) {}

  std::optional<std::string_view> next(std::string_view delimiters) {
    // The daemon splits at one or two delimiters; more are taken one by one.
    const char d0 = delimiters.empty() ? '\0' : delimiters[0];
    const char d1 = delimiters.size() > 1 ? delimiters[1] : d0;
    auto is_delimiter = [&](char c) {
      return !delimiters.empty() &&
             (c == d0 || c == d1 ||
              (delimiters.size() > 2 && delimiters.find(c) != std::string_view::npos));
    };
    const char* p = rest_.data();
    const char* const end = p + rest_.size();
    while (p != end && is_delimiter(*p)) ++p;
    if (p == end) {
      rest_ = {};
      return std::nullopt;
    }
    const char* const token = p;
    while (p != end && !is_delimiter(*p)) ++p;
    std::string_view word(token, static_cast<size_t>(p - token));
    if (p != end) ++p;  // the one delimiter after the token
    rest_ = std::string_view(p, static_cast<size_t>(end - p));
    return word;
  }

  // What the next call would start from.
  std::string_view rest() const { return rest_; }

 private:
  std::string_view rest_;
};

// strtol in base 10: optional white space and sign, then leading digits, a value out of range
// clamped to the limits of long; `text` then starts after the digits. False, with `text` and
// `value` unchanged, when no digit follows the white space and sign.
bool scan_long(std::string_view& text, long& value);

// atol: scan_long's value, 0 when there is none.
inline long parse_long(std::string_view text) {
  long value = 0;
  scan_long(text, value);
  return value;
}

}  // namespace adcdf
