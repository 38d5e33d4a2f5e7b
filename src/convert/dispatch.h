// The 22 section names and their converters.
#pragma once

#include <span>
#include <string_view>

#include "stream/context.h"

namespace adcdf {

struct SectionEntry {
  std::string_view name_line;  // the name with its newline
  int (*convert)(Context&);
};

// In the order a section name line is compared with them.
std::span<const SectionEntry> section_table();

// The entry whose name line equals `line` exactly, newline included; null when there is none.
const SectionEntry* find_section(std::string_view line);

}  // namespace adcdf
