#include "record/record_writer.h"

namespace adcdf {

void append_event_columns(std::string& text, const EventTime& event) {
  char columns[7 * (kNumberBytes + 1)];
  char* at = columns;
  for (long value : {static_cast<long>(event.giYear), static_cast<long>(event.giMonth),
                     static_cast<long>(event.giDay), static_cast<long>(event.giHour),
                     static_cast<long>(event.giMin), static_cast<long>(event.giSec), event.glGMT}) {
    at = std::to_chars(at, at + kNumberBytes, value).ptr;
    *at++ = ',';
  }
  text.append(columns, at);
}

}  // namespace adcdf
