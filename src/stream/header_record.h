// The header record that starts each generation: its type, the local date of the day the
// generation was started at midnight, event time 0, the host name, then constant columns.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

namespace adcdf {

inline constexpr int kHeaderType = 999;
// The columns after the host name.
inline constexpr std::string_view kHeaderConstants = "0,0,0,\"\",\"\",0,0,0,\"\",0,0,0,\"\",\"\"";
// The most bytes of the host name it holds.
inline constexpr size_t kHeaderHostWidth = 256;

// The header record for a generation started at `now` on host `host`, with its line feed.
std::string header_record(std::time_t now, std::string_view host);

}  // namespace adcdf
