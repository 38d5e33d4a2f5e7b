// The section kinds: one row each, with the name line that starts such a section in the audit
// file, its converter, and the label its counter has in the statistics. Dispatch, counting and
// the statistics all come from this one table, in the statistics' order. Routing-summary has a
// counter and no section.
#pragma once

#include <span>
#include <string_view>

#include "convert/engine.h"
#include "stream/context.h"

namespace adcdf {

struct SectionKind {
  std::string_view label;      // in the statistics
  std::string_view name_line;  // the section's name with its newline; empty when it has none
  const ConverterDef* def;     // null when it has no section
};

std::span<const SectionKind> section_kinds();

// The kind whose name line equals `line` exactly, newline included; null when there is none.
const SectionKind* find_section(std::string_view line);

// The statistics block of the debug trace.
std::string statistics_text(const Counters& counters);

// Converts sections, keeping the converters' working storage from one section to the next.
class SectionConverter {
 public:
  // Converts the section of `kind`, whose name line is ctx.line, and counts it.
  void convert(Context& ctx, const SectionKind& kind);
  ConverterWork& work() { return work_; }

 private:
  ConverterWork work_;
};

}  // namespace adcdf
