#include "record/record_writer.h"

namespace adcdf {

RecordLine::RecordLine(std::string& out, int type, const EventTime& event) : out_(out) {
  for (long value : {static_cast<long>(type), static_cast<long>(event.giYear),
                     static_cast<long>(event.giMonth), static_cast<long>(event.giDay),
                     static_cast<long>(event.giHour), static_cast<long>(event.giMin),
                     static_cast<long>(event.giSec), event.glGMT}) {
    number(value);
  }
}

}  // namespace adcdf
