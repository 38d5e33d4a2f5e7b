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
    auto is_delimiter = [delimiters](char c) {
      for (char d : delimiters) {
        if (c == d) return true;
      }
      return false;
    };
    size_t start = 0;
    while (start < rest_.size() && is_delimiter(rest_[start])) ++start;
    if (start == rest_.size()) {
      rest_ = {};
      return std::nullopt;
    }
    size_t end = start;
    while (end < rest_.size() && !is_delimiter(rest_[end])) ++end;
    std::string_view token = rest_.substr(start, end - start);
    rest_.remove_prefix(end == rest_.size() ? end : end + 1);
    return token;
  }

  // What the next call would start from.
  std::string_view rest() const { return rest_; }

 private:
  std::string_view rest_;
};

// atol: optional white space and sign, then leading digits; out-of-range values clamp to the
// limits of long, as strtol does.
long parse_long(std::string_view text);

}  // namespace adcdf
