// Building CDF record lines.
//
// A record is one line: the common prefix "type,year,month,day,hour,minute,second,time," from
// the section's event time, then columns separated by single commas, then a line feed. Bare
// columns are written as they are, quoted columns between double quotes; nothing inside a value
// is escaped. Lines are appended to the section's output text, which is written with one write
// when the section is complete.
#pragma once

#include <charconv>
#include <string>
#include <string_view>

#include "stream/context.h"

namespace adcdf {

// Appends the columns 2 to 8 of every record of a section, with their commas:
// "year,month,day,hour,minute,second,time,".
void append_event_columns(std::string& out, const EventTime& event);

class RecordLine {
 public:
  RecordLine(std::string& out, int type, const EventTime& event);
  // As above, with the event's columns already formatted by append_event_columns().
  RecordLine(std::string& out, int type, std::string_view event_columns) : out_(out) {
    number(type);
    out_.append(event_columns);
  }

  RecordLine& bare(std::string_view value) {
    out_.append(value);
    out_.push_back(',');
    return *this;
  }
  RecordLine& quoted(std::string_view value) {
    out_.push_back('"');
    out_.append(value);
    out_.append("\",");
    return *this;
  }
  RecordLine& number(long value) {
    append_number(out_, value);
    out_.push_back(',');
    return *this;
  }
  // Ends the record: the comma after the last column becomes the line feed.
  void end() { out_.back() = '\n'; }

  static void append_number(std::string& out, long value) {
    char digits[24];
    auto result = std::to_chars(digits, digits + sizeof digits, value);
    out.append(digits, result.ptr);
  }

 private:
  std::string& out_;
};

}  // namespace adcdf
