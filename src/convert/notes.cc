// notes-in and notes-out sections: counted and read to their blank line; they yield no record
// and nothing in the error file.
#include "convert/converters.h"

namespace adcdf {
namespace {

int pass_over(Context& ctx, std::string_view name, int& counter) {
  TraceScope scope(ctx.trace, name);
  while (ctx.next_section_line() != "\n") {
  }
  ++counter;
  scope.done();
  return 0;
}

}  // namespace

int adcdf_do_notesin(Context& ctx) {
  return pass_over(ctx, "adcdf_do_notesin", ctx.counters.gixNOTESIn);
}
int adcdf_do_notesout(Context& ctx) {
  return pass_over(ctx, "adcdf_do_notesout", ctx.counters.gixNOTESOut);
}

}  // namespace adcdf
