// Building CDF record lines.
//
// A record is one line: the common prefix "type,year,month,day,hour,minute,second,time," from
// the section's event time, then columns separated by single commas, then a line feed. Bare
// columns are written as they are, quoted columns between double quotes; nothing inside a value
// is escaped. Records are formatted in place into the pending output (support/buffer.h): the
// converter makes room once for the longest record its layout can produce, and RecordCursor then
// writes without a check per character.
#pragma once

#include <charconv>
#include <cstring>
#include <string>
#include <string_view>

#include "stream/context.h"

namespace adcdf {

// The most characters a number takes.
inline constexpr size_t kNumberBytes = 20;

// Appends the decimal digits of `value`.
template <typename Text>
void append_number(Text& out, long value) {
  char digits[kNumberBytes + 1];
  auto result = std::to_chars(digits, digits + sizeof digits, value);
  out.append(std::string_view(digits, static_cast<size_t>(result.ptr - digits)));
}

// Appends the columns 2 to 8 of every record of a section, with their commas:
// "year,month,day,hour,minute,second,time,".
void append_event_columns(std::string& out, const EventTime& event);

// Writes one record into room made for it beforehand.
class RecordCursor {
 public:
  // The record type, then the event's columns as append_event_columns() formats them.
  RecordCursor(char* at, int type, std::string_view event_columns) : at_(at) {
    number(type);
    copy(event_columns);
  }

  RecordCursor& bare(std::string_view value) {
    copy(value);
    *at_++ = ',';
    return *this;
  }
  RecordCursor& quoted(std::string_view value) {
    *at_++ = '"';
    copy(value);
    *at_++ = '"';
    *at_++ = ',';
    return *this;
  }
  RecordCursor& number(long value) {
    at_ = std::to_chars(at_, at_ + kNumberBytes, value).ptr;
    *at_++ = ',';
    return *this;
  }
  // Ends the record, the comma after the last column becoming the line feed; returns its end.
  char* end() {
    at_[-1] = '\n';
    return at_;
  }

 private:
  void copy(std::string_view text) {
    std::memcpy(at_, text.data(), text.size());
    at_ += text.size();
  }

  char* at_;
};

}  // namespace adcdf
