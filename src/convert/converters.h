// The converters, one per section name. Each reads its section from the line after the section
// name line to its blank line and puts its records into the section's output.
#pragma once

#include <span>

#include "stream/context.h"

namespace adcdf {

struct ConverterDef;

// Message transfer
int adcdf_do_routing(Context& ctx);
int adcdf_do_delivery(Context& ctx);
int adcdf_do_bulletin(Context& ctx);
// Gateways
int adcdf_do_x400in(Context& ctx);
int adcdf_do_x400out(Context& ctx);
int adcdf_do_unixin(Context& ctx);
int adcdf_do_unixout(Context& ctx);
int adcdf_do_deskin(Context& ctx);
int adcdf_do_deskout(Context& ctx);
int adcdf_do_faxgateway(Context& ctx);
int adcdf_do_smsin(Context& ctx);
int adcdf_do_smsout(Context& ctx);
int adcdf_do_notesin(Context& ctx);
int adcdf_do_notesout(Context& ctx);
// Administration
int adcdf_do_ekscan(Context& ctx);
int adcdf_do_subsysstart(Context& ctx);
int adcdf_do_subsysstop(Context& ctx);
int adcdf_do_usersignon(Context& ctx);
int adcdf_do_usersignoff(Context& ctx);
int adcdf_do_requestserver(Context& ctx);
int adcdf_do_dirsyncin(Context& ctx);
int adcdf_do_dirsyncout(Context& ctx);

// The tables of each group's converters, for the record catalogue.
std::span<const ConverterDef* const> message_transfer_tables();
std::span<const ConverterDef* const> gateway_tables();
std::span<const ConverterDef* const> administration_tables();
std::span<const ConverterDef* const> subsystem_tables();

}  // namespace adcdf
