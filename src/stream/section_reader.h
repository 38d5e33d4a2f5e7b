// Reading a section: its lines, one at a time, and its header (event time, checkpoint skip and
// change of day, which commits what is pending and plans the rotation of the generations).
//
// adcdf_get_generic reads the header line that follows a section name line. It answers kConvert
// when the section is to be converted (the event time is set, and a rotation is planned when the
// event's year, month or day is greater than the last section's, each compared on its own), and
// kSkip when the section is finished already: its header was blank, had no usable time, or its
// time lies before the checkpoint, and its lines up to the blank line have been read. A stop
// while it reads abandons the section (SectionAbandoned), as it does anywhere in a section.
#pragma once

#include <string_view>

#include "stream/context.h"

namespace adcdf {

// The line that ends a section.
inline constexpr std::string_view kBlankLine = "\n";

// Reads the next line of the section in hand into ctx.line and counts it (waits at the end of
// the file; throws SectionAbandoned on a stop, noticed at the latest 1024 lines on).
std::string_view next_section_line(Context& ctx);

enum class Header { kConvert, kSkip };

Header adcdf_get_generic(Context& ctx);

}  // namespace adcdf
