// Runs the field extraction routines, the recipient line parser and the user line parser over
// arbitrary lines, positions and limits, and checks what every result must satisfy.
//
// Input layout:
//   byte 0     bit 0: upshift, bit 1: debug trace (to /dev/null)
//   byte 1     word position, -1..6
//   bytes 2-3  limit (little-endian, 0..1299)
//   bytes 4-7  the four limits of a user line
//   the rest   the line
// Each routine also runs once with a destination that already holds an unrelated value: the
// result must not depend on what the destination held before.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "record/fields.h"
#include "record/recipients.h"
#include "support/trace.h"

namespace {

using adcdf::FieldRules;

std::FILE* g_devnull = nullptr;

// A stale value a destination may hold from an earlier line.
const std::string kStale = std::string(1000, 'q') + "\\ \n\\\\" + std::string(300, ' ');

[[noreturn]] void fail(const char* routine, const char* what, std::string_view line,
                       std::string_view value) {
  std::fprintf(stderr, "INVARIANT BROKEN in %s: %s\nline:  [%.*s]\nvalue: [%.*s]\n", routine, what,
               static_cast<int>(line.size()), line.data(), static_cast<int>(value.size()),
               value.data());
  std::abort();
}

#define CHECK(cond, routine, what, line, value)    \
  do {                                             \
    if (!(cond)) fail(routine, what, line, value); \
  } while (0)

bool has_lower(std::string_view s) {
  for (char c : s) {
    if (c >= 'a' && c <= 'z') return true;
  }
  return false;
}

bool has(std::string_view s, char c) {
  return s.find(c) != std::string_view::npos;
}

// Escape removal as its rule is stated: walk an index over the string; at a backslash, close
// the gap over it; advance by one in every case.
std::string unescape_by_rule(std::string s) {
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\') s.erase(i, 1);
  }
  return s;
}

// Runs `extract` into a fresh and into a stale destination; both must agree.
template <typename F>
std::string run_both(const char* routine, std::string_view line, F extract) {
  std::string fresh;
  extract(fresh);
  std::string stale = kStale;
  extract(stale);
  CHECK(fresh == stale, routine, "result depends on the destination's old value", line, stale);
  return fresh;
}

// A cleaned address: within its limit, never with a newline, always ending in its appended blank
// when there is room for one, upper-cased under upshift.
void check_address(const char* routine, const FieldRules& rules, std::string_view line,
                   const std::string& value, size_t limit) {
  CHECK(value.size() <= limit, routine, "value longer than its limit", line, value);
  if (limit == 0) {
    CHECK(value.empty(), routine, "value in a zero-length field", line, value);
  } else {
    CHECK(!value.empty() && value.back() == ' ', routine, "address lacks its final blank", line,
          value);
  }
  if (rules.upshift) CHECK(!has_lower(value), routine, "lower case under upshift", line, value);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_devnull = std::fopen("/dev/null", "w");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 8) return 0;
  adcdf::Tracer tracer(g_devnull);
  tracer.set_debug(data[0] & 0x02);
  const FieldRules rules{tracer, (data[0] & 0x01) != 0};
  const int pos = data[1] % 8 - 1;
  const size_t limit = (data[2] | (data[3] << 8)) % 1300;
  const adcdf::UserLimits user_limits{data[4], data[5], data[6], data[7]};
  const std::string_view line(reinterpret_cast<const char*>(data) + 8, size - 8);

  // adcdf_get_item: one word, cut to the limit; a word past the first never holds a blank or a
  // newline, and position 1 is the whole line.
  std::string item = run_both("adcdf_get_item", line, [&](std::string& d) {
    adcdf::adcdf_get_item(rules, line, pos, d, limit);
  });
  CHECK(item.size() <= limit, "adcdf_get_item", "value longer than its limit", line, item);
  CHECK(line.find(item) != std::string_view::npos, "adcdf_get_item", "value not from the line",
        line, item);
  if (pos == 1) {
    CHECK(item == line.substr(0, limit), "adcdf_get_item", "position 1 is not the line", line,
          item);
  } else if (pos >= 2) {
    CHECK(!has(item, ' ') && !has(item, '\n'), "adcdf_get_item", "word holds a separator", line,
          item);
  }

  // adcdf_get_varstring_mta: the raw rest of the line, backslashes kept.
  std::string mta = run_both("adcdf_get_varstring_mta", line, [&](std::string& d) {
    adcdf::adcdf_get_varstring_mta(rules, line, pos, d, limit);
  });
  CHECK(mta.size() <= limit, "adcdf_get_varstring_mta", "value longer than its limit", line, mta);
  CHECK(line.find(mta) != std::string_view::npos, "adcdf_get_varstring_mta",
        "value not taken as it stands in the line", line, mta);
  if (pos != 1) {
    CHECK(!has(mta, '\n'), "adcdf_get_varstring_mta", "value holds a newline", line, mta);
  }

  // adcdf_get_varstring: the same value with its escapes removed.
  std::string varstring = run_both("adcdf_get_varstring", line, [&](std::string& d) {
    adcdf::adcdf_get_varstring(rules, line, pos, d, limit);
  });
  CHECK(varstring.size() <= limit, "adcdf_get_varstring", "value longer than its limit", line,
        varstring);
  CHECK(varstring == unescape_by_rule(mta), "adcdf_get_varstring",
        "not the mta value with its escapes removed", line, varstring);

  // adcdf_clean_address: the whole source, upshifted, one blank appended, escapes removed.
  std::string cleaned = run_both("adcdf_clean_address", line, [&](std::string& d) {
    adcdf::adcdf_clean_address(rules, line, d, limit);
  });
  check_address("adcdf_clean_address", rules, line, cleaned, limit);
  if (limit > 0 && !has(line, '\\')) {
    std::string expected(line.substr(0, limit - 1));
    if (rules.upshift) {
      for (char& c : expected) c = adcdf::upper_ascii(c);
    }
    expected.push_back(' ');
    CHECK(cleaned == expected, "adcdf_clean_address", "not the source upshifted plus a blank", line,
          cleaned);
  }

  // adcdf_get_address: the varstring (in its work buffer), cleaned.
  std::string address = run_both("adcdf_get_address", line, [&](std::string& d) {
    adcdf::adcdf_get_address(rules, line, pos, d, limit);
  });
  check_address("adcdf_get_address", rules, line, address, limit);
  if (pos != 1) {
    CHECK(!has(address, '\n'), "adcdf_get_address", "value holds a newline", line, address);
  }
  std::string work;
  adcdf::adcdf_get_varstring(rules, line, pos, work, adcdf::kAddressWorkLimit);
  std::string expected_address;
  adcdf::adcdf_clean_address(rules, work, expected_address, limit);
  CHECK(address == expected_address, "adcdf_get_address", "not the cleaned varstring", line,
        address);

  // adcdf_special_processing: in place, shortens only, as the rule walks the string.
  std::string text(line);
  adcdf::adcdf_special_processing(tracer, text);
  CHECK(text == unescape_by_rule(std::string(line)), "adcdf_special_processing",
        "escapes removed wrongly", line, text);

  // adcdf_get_recip_line: a category digit and a cleaned address within 849 characters.
  adcdf::Recipient recipient;
  recipient.recip = kStale;
  recipient.category = "x";
  adcdf::adcdf_get_recip_line(rules, line, recipient, 0);
  CHECK(recipient.category.size() == 1 && recipient.category[0] >= '0' &&
            recipient.category[0] <= '4',
        "adcdf_get_recip_line", "category not 0..4", line, recipient.category);
  CHECK(recipient.recip.size() <= adcdf::kRecipLimit, "adcdf_get_recip_line",
        "address longer than its field", line, recipient.recip);
  if (!recipient.recip.empty()) {
    check_address("adcdf_get_recip_line", rules, line, recipient.recip, adcdf::kRecipLimit);
  }
  const size_t hyphen = line.find('-');
  const std::string_view after_hyphen =
      hyphen == std::string_view::npos ? std::string_view{} : line.substr(hyphen + 1);
  if (has(after_hyphen, ' ')) {
    CHECK(!recipient.recip.empty(), "adcdf_get_recip_line", "address part lost", line,
          recipient.recip);
  }
  if (hyphen == std::string_view::npos) {
    CHECK(recipient.category == "4" && recipient.recip.empty(), "adcdf_get_recip_line",
          "a line without a hyphen has no category or address", line, recipient.recip);
  }

  // adcdf_process_user: four values, each within its limit; only the mail-system name (an
  // address) may hold a blank.
  std::string number = kStale, mail_name = kStale, name1 = kStale, name2 = kStale;
  adcdf::adcdf_process_user(rules, line, {number, mail_name, name1, name2}, user_limits);
  CHECK(number.size() <= user_limits.number && !has(number, ' '), "adcdf_process_user",
        "bad user number", line, number);
  CHECK(name1.size() <= user_limits.name1 && !has(name1, ' '), "adcdf_process_user",
        "bad user name 1", line, name1);
  CHECK(name2.size() <= user_limits.name2 && !has(name2, ' '), "adcdf_process_user",
        "bad user name 2", line, name2);
  check_address("adcdf_process_user", rules, line, mail_name, user_limits.mail_name);
  return 0;
}
