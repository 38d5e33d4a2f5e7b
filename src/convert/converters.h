// The converter tables of the section kinds, one each, defined in the files of their groups and
// listed in the section table (sections.h).
#pragma once

#include "convert/engine.h"

namespace adcdf::converters {

// Message transfer (transfer.cc)
extern const ConverterDef kRouting, kDelivery, kBulletin;
// Gateways (gateways.cc, notes.cc)
extern const ConverterDef kX400In, kX400Out, kUnixIn, kUnixOut, kDeskIn, kDeskOut, kFax, kSmsIn,
    kSmsOut, kNotesIn, kNotesOut;
// Administration (admin.cc, subsystem.cc)
extern const ConverterDef kEkscan, kUserSignon, kUserSignoff, kRequest, kDirSyncIn, kDirSyncOut,
    kSubsystemStart, kSubsystemStop;

}  // namespace adcdf::converters
