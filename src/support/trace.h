// Debug tracing on the standard error stream.
//
// In debug mode every routine writes "-> name" when it starts and "<- name" before its final
// return, and some write debug messages. Everything goes through one buffered stream, which the
// daemon flushes before it sleeps and before it exits, so the trace costs one write per screenful
// rather than one per line. With debug off, enter/leave/printf cost a test of one flag.
#pragma once

#include <cstdio>
#include <string_view>

namespace adcdf {

class Tracer {
 public:
  explicit Tracer(std::FILE* sink = stderr) : sink_(sink) {}

  bool on() const { return debug_; }
  void set_debug(bool on) { debug_ = on; }

  // The entry and exit lines.
  void enter(std::string_view name) {
    if (debug_) line("-> ", name);
  }
  void leave(std::string_view name) {
    if (debug_) line("<- ", name);
  }

  // A debug message, written only in debug mode.
  void printf(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // Raw text, written whatever the mode (usage text, argument messages).
  void write(std::string_view text);
  void flush();

 private:
  void line(std::string_view arrow, std::string_view name);

  std::FILE* sink_;
  bool debug_ = false;
};

// Writes the entry trace on construction and, when done() is called, the exit trace. Early
// returns simply do not call done(), which leaves the exit line out as the trace rules want.
class TraceScope {
 public:
  TraceScope(Tracer& tracer, std::string_view name) : tracer_(tracer), name_(name) {
    tracer_.enter(name_);
  }
  void done() { tracer_.leave(name_); }

 private:
  Tracer& tracer_;
  std::string_view name_;
};

}  // namespace adcdf
