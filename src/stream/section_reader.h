// The section header: event time, checkpoint skip and change of day.
//
// adcdf_get_generic reads the header line that follows a section name line. It answers kConvert
// when the section is to be converted (the event time is set, and a rotation is planned when the
// event's year, month or day is greater than the last section's, each compared on its own), and
// kSkip when the section is finished already: its header was blank, had no usable time, or its
// time lies before the checkpoint, and its lines up to the blank line have been read. A stop
// while it reads abandons the section (SectionAbandoned), as it does anywhere in a section.
#pragma once

namespace adcdf {

struct Context;

enum class Header { kConvert, kSkip };

Header adcdf_get_generic(Context& ctx);

}  // namespace adcdf
