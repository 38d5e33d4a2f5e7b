#include "record/fields.h"

#include <algorithm>
#include <cstring>

#include "support/tokenizer.h"

namespace adcdf {
namespace {

// The raw value of a varstring: from word `pos` to the newline, or nothing; like a further
// strtok with the newline as delimiter, it passes over newlines before the value.
std::string_view varstring_value(std::string_view source, int pos) {
  if (pos == 1) return source;
  Tokenizer words(source);
  for (int i = 1; i < pos; ++i) {
    if (!words.next(" ")) return {};
  }
  std::string_view value = words.rest();
  value.remove_prefix(std::min(value.find_first_not_of('\n'), value.size()));
  return value.substr(0, value.find('\n'));
}

void remove_escapes(std::string& text) {
  size_t first = text.find('\\');
  if (first == std::string::npos) return;
  size_t out = first;
  for (size_t in = first; in < text.size(); ++in) {
    if (text[in] == '\\') {
      if (++in == text.size()) break;  // a trailing backslash is dropped
    }
    text[out++] = text[in];
  }
  text.resize(out);
}

}  // namespace

void adcdf_get_item(const FieldRules& rules, std::string_view source, int pos, std::string& dest,
                    size_t limit) {
  TraceScope scope(rules.trace, "adcdf_get_item");
  if (pos == 1) {
    assign_cut(dest, source, limit);
  } else {
    Tokenizer words(source);
    std::optional<std::string_view> word = words.next(" ");
    for (int i = 2; i <= pos && word; ++i) word = words.next(" \n");
    assign_cut(dest, word.value_or(std::string_view{}), limit);
  }
  scope.done();
}

void adcdf_get_varstring(const FieldRules& rules, std::string_view source, int pos,
                         std::string& dest, size_t limit) {
  TraceScope scope(rules.trace, "adcdf_get_varstring");
  assign_cut(dest, varstring_value(source, pos), limit);
  adcdf_special_processing(rules.trace, dest);
  scope.done();
}

void adcdf_get_varstring_mta(const FieldRules& rules, std::string_view source, int pos,
                             std::string& dest, size_t limit) {
  TraceScope scope(rules.trace, "adcdf_get_varstring_mta");
  assign_cut(dest, varstring_value(source, pos), limit);
  scope.done();
}

void adcdf_get_address(const FieldRules& rules, std::string_view source, int pos, std::string& dest,
                       size_t limit) {
  TraceScope scope(rules.trace, "adcdf_get_address");
  // The varstring goes through `dest` itself, which the cleaning then rewrites in place.
  adcdf_get_varstring(rules, source, pos, dest, kAddressWorkLimit);
  adcdf_clean_address(rules, dest, dest, limit);
  scope.done();
}

void adcdf_clean_address(const FieldRules& rules, std::string_view source, std::string& dest,
                         size_t limit) {
  TraceScope scope(rules.trace, "adcdf_clean_address");
  size_t take = std::min(source.size(), limit > 0 ? limit - 1 : 0);
  dest.resize(take);
  if (rules.upshift) {
    std::transform(source.begin(), source.begin() + take, dest.begin(), upper_ascii);
  } else if (take > 0) {
    std::memmove(dest.data(), source.data(), take);
  }
  if (limit > 0) dest.push_back(' ');
  adcdf_special_processing(rules.trace, dest);
  scope.done();
}

void adcdf_special_processing(Tracer& trace, std::string& text) {
  TraceScope scope(trace, "adcdf_special_processing");
  remove_escapes(text);
  scope.done();
}

}  // namespace adcdf
