// notes-in and notes-out sections: counted and read to their blank line; they yield no record
// and nothing in the error file.
#include "convert/converters.h"

namespace adcdf::converters {

const ConverterDef kNotesIn{.name = "adcdf_do_notesin", .counting = Counting::kPassedOver};
const ConverterDef kNotesOut{.name = "adcdf_do_notesout", .counting = Counting::kPassedOver};

}  // namespace adcdf::converters
