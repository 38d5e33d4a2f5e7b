// The section header: event time, checkpoint skip and change of day.
//
// adcdf_get_generic reads the header line that follows a section name line. It returns 0 when
// the section is to be converted (the event time is set, and a rotation is planned when the
// event's year, month or day is greater than the last section's, each compared on its own), and
// 1 when the section is finished already: its header was blank, had no usable time, or its time
// lies before the checkpoint, and its lines up to the blank line have been read.
#pragma once

namespace adcdf {

struct Context;

int adcdf_get_generic(Context& ctx);

}  // namespace adcdf
