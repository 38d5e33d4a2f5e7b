#include "record/record_writer.h"

namespace adcdf {

void append_event_columns(std::string& text, const EventTime& event) {
  char columns[7 * (kNumberBytes + 1)];
  char* at = columns;
  for (long value :
       {static_cast<long>(event.year), static_cast<long>(event.month), static_cast<long>(event.day),
        static_cast<long>(event.hour), static_cast<long>(event.minute),
        static_cast<long>(event.second), event.since_epoch}) {
    at = std::to_chars(at, at + kNumberBytes, value).ptr;
    *at++ = ',';
  }
  text.append(columns, at);
}

}  // namespace adcdf
