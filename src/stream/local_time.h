// A date and time in the daemon's local time zone, as columns 2 to 7 of a record give it: the
// year counted from 1900, the month from 1 to 12, the day, hour, minute and second.
#pragma once

namespace adcdf {

struct LocalTime {
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  bool operator==(const LocalTime&) const = default;
};

// The event time of the section in hand: its local date and time, and the seconds since the
// epoch as its header gave them.
struct EventTime : LocalTime {
  long since_epoch = 0;
};

}  // namespace adcdf
