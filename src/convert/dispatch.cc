#include "convert/dispatch.h"

#include <array>

#include "convert/converters.h"

namespace adcdf {
namespace {

constexpr std::array<SectionEntry, 22> kSections{{
    {"ekscan\n", adcdf_do_ekscan},
    {"subsystem-start\n", adcdf_do_subsysstart},
    {"subsystem-stop\n", adcdf_do_subsysstop},
    {"user-signon\n", adcdf_do_usersignon},
    {"user-signoff\n", adcdf_do_usersignoff},
    {"routing\n", adcdf_do_routing},
    {"fax\n", adcdf_do_faxgateway},
    {"delivery\n", adcdf_do_delivery},
    {"request\n", adcdf_do_requestserver},
    {"unix-in\n", adcdf_do_unixin},
    {"unix-out\n", adcdf_do_unixout},
    {"desk-in\n", adcdf_do_deskin},
    {"desk-out\n", adcdf_do_deskout},
    {"x400-in\n", adcdf_do_x400in},
    {"x400-out\n", adcdf_do_x400out},
    {"sms-in\n", adcdf_do_smsin},
    {"sms-out\n", adcdf_do_smsout},
    {"notes-in\n", adcdf_do_notesin},
    {"notes-out\n", adcdf_do_notesout},
    {"bulletin\n", adcdf_do_bulletin},
    {"dirsync-in\n", adcdf_do_dirsyncin},
    {"dirsync-out\n", adcdf_do_dirsyncout},
}};

}  // namespace

std::span<const SectionEntry> section_table() {
  return kSections;
}

const SectionEntry* find_section(std::string_view line) {
  for (const SectionEntry& entry : kSections) {
    if (entry.name_line == line) return &entry;
  }
  return nullptr;
}

}  // namespace adcdf
