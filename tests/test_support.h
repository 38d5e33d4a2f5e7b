// Helpers shared by the unit tests: captured traces, a scripted end-of-file policy and a Context
// over an in-memory audit stream.
#pragma once

#include <stdio.h>
#include <stdlib.h>

#include <cstdio>
#include <string>
#include <vector>

#include "convert/sections.h"
#include "stream/audit_input.h"
#include "stream/context.h"
#include "stream/line_reader.h"
#include "stream/section_reader.h"
#include "support/trace.h"
#include "temp_dir.h"

namespace adcdf::testing {

// A last date no section can be later than, so converting does not start a generation.
constexpr LocalTime kNoRotation{1000, 13, 32, 0, 0, 0};

// A Tracer whose output is kept in memory.
class TraceCapture {
 public:
  TraceCapture() : file_(open_memstream(&data_, &size_)), tracer_(file_) {}
  ~TraceCapture() {
    std::fclose(file_);
    std::free(data_);
  }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  Tracer& tracer() { return tracer_; }
  std::string text() {
    std::fflush(file_);
    return std::string(data_, size_);
  }

 private:
  char* data_ = nullptr;
  size_t size_ = 0;
  std::FILE* file_;
  Tracer tracer_;
};

// Stands in for the 2-second poll: each pause appends the next chunk (if any) to the source; the
// first pause after the chunks are used up tells the daemon to stop.
class ScriptedWaiter : public Waiter {
 public:
  ScriptedWaiter(MemorySource& source, std::vector<std::string> chunks)
      : source_(source), chunks_(std::move(chunks)) {}

  bool keep_going() override {
    if (checks_left_ >= 0 && checks_left_-- == 0) stopped_ = true;
    return !stopped_;
  }
  // Stops the daemon at the check after the next `n`, wherever it reads: a stop while catching up.
  void stop_after_checks(int n) { checks_left_ = n; }
  void pause() override {
    if (next_ < chunks_.size()) {
      source_.append(chunks_[next_++]);
    } else {
      stopped_ = true;
    }
  }

 private:
  MemorySource& source_;
  std::vector<std::string> chunks_;
  size_t next_ = 0;
  int checks_left_ = -1;
  bool stopped_ = false;
};

// A Context over an in-memory audit stream. `audit` is what the file holds at the start; the
// waiter appends `chunks` one per poll and then stops the daemon.
struct Harness {
  explicit Harness(std::string audit, Options options = {}, std::vector<std::string> chunks = {})
      : source(std::move(audit)),
        waiter(source, std::move(chunks)),
        input(source, waiter),
        ctx(std::move(options), trace.tracer(), input) {
    ctx.trace.set_debug(ctx.options.debug);
  }

  // Runs a routine of the section reader as a converter would: the name line has just been read.
  Header convert(Header (*routine)(Context&)) {
    ctx.line = "section\n";
    return routine(ctx);
  }
  // Converts the section of `name_line` as the processing loop would, that line just read.
  void convert(std::string_view name_line) {
    ctx.line = name_line;
    converter.convert(ctx, *find_section(name_line));
  }
  // The count of the section kind labelled `label` in the statistics.
  int counted(std::string_view label) const {
    for (size_t i = 0; i < std::size(kKinds); ++i) {
      if (kKinds[i].label == label) return converter.counters()[i];
    }
    return -1;
  }

  TraceCapture trace;
  MemorySource source;
  ScriptedWaiter waiter;
  AuditInput input;
  Context ctx;
  SectionConverter converter;
};

}  // namespace adcdf::testing
