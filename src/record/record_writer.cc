#include "record/record_writer.h"

namespace adcdf {

void append_event_columns(std::string& text, const EventTime& event) {
  for (long value : {static_cast<long>(event.giYear), static_cast<long>(event.giMonth),
                     static_cast<long>(event.giDay), static_cast<long>(event.giHour),
                     static_cast<long>(event.giMin), static_cast<long>(event.giSec), event.glGMT}) {
    append_number(text, value);
    text.push_back(',');
  }
}

}  // namespace adcdf
