#include "support/trace.h"

#include <cstdarg>

namespace adcdf {

void Tracer::printf(const char* format, ...) {
  if (!debug_) return;
  va_list args;
  va_start(args, format);
  std::vfprintf(sink_, format, args);
  va_end(args);
}

void Tracer::write(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), sink_);
}

void Tracer::flush() {
  std::fflush(sink_);
}

void Tracer::line(std::string_view arrow, std::string_view name) {
  std::fwrite(arrow.data(), 1, arrow.size(), sink_);
  std::fwrite(name.data(), 1, name.size(), sink_);
  std::fputc('\n', sink_);
}

}  // namespace adcdf
