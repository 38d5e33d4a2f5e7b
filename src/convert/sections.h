// The section kinds: one row each, with the name line that starts such a section in the audit
// file, its converter, and the label its counter has in the statistics. Dispatch, counting and
// the statistics all come from this one table, in the statistics' order. Routing-summary has a
// counter and no section.
#pragma once

#include <array>
#include <string_view>

#include "convert/converters.h"
#include "stream/context.h"

namespace adcdf {

struct SectionKind {
  std::string_view label;      // in the statistics
  std::string_view name_line;  // the section's name with its newline; empty when it has none
  const ConverterDef* def;     // null when it has no section
};

// The section table, in the statistics' order.
inline constexpr SectionKind kKinds[] = {
    {"Bulletin", "bulletin\n", &converters::kBulletin},
    {"Delivery", "delivery\n", &converters::kDelivery},
    {"Desk-in", "desk-in\n", &converters::kDeskIn},
    {"Desk-out", "desk-out\n", &converters::kDeskOut},
    {"DirSync-in", "dirsync-in\n", &converters::kDirSyncIn},
    {"DirSync-out", "dirsync-out\n", &converters::kDirSyncOut},
    {"Fax-gateway", "fax\n", &converters::kFax},
    {"Ekscan", "ekscan\n", &converters::kEkscan},
    {"Request-server", "request\n", &converters::kRequest},
    {"Routing", "routing\n", &converters::kRouting},
    {"Routing-summary", "", nullptr},
    {"Subsystem-start", "subsystem-start\n", &converters::kSubsystemStart},
    {"Subsystem-stop", "subsystem-stop\n", &converters::kSubsystemStop},
    {"Unix-in", "unix-in\n", &converters::kUnixIn},
    {"Unix-out", "unix-out\n", &converters::kUnixOut},
    {"User-signoff", "user-signoff\n", &converters::kUserSignoff},
    {"User-signon", "user-signon\n", &converters::kUserSignon},
    {"X400-in", "x400-in\n", &converters::kX400In},
    {"X400-out", "x400-out\n", &converters::kX400Out},
    {"SMS-in", "sms-in\n", &converters::kSmsIn},
    {"SMS-out", "sms-out\n", &converters::kSmsOut},
    {"NOTES-in", "notes-in\n", &converters::kNotesIn},
    {"NOTES-out", "notes-out\n", &converters::kNotesOut},
};

// One counter per section kind, in the order of the table.
using Counters = std::array<int, std::size(kKinds)>;

// The kind whose name line equals `line` exactly, newline included; null when there is none.
const SectionKind* find_section(std::string_view line);

// The statistics block of the debug trace.
std::string statistics_text(const Counters& counters);

// Converts sections, keeping the converters' working storage from one section to the next.
class SectionConverter {
 public:
  // Converts the section of `kind`, whose name line is ctx.line, and counts it.
  void convert(Context& ctx, const SectionKind& kind);
  const Counters& counters() const { return counters_; }
  ConverterWork& work() { return work_; }

 private:
  ConverterWork work_;
  Counters counters_{};
};

}  // namespace adcdf
