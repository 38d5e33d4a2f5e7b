#include "stream/audit_input.h"

#include "support/signals.h"

namespace adcdf {

bool PollWaiter::keep_going() {
  return bContinue != 0;
}

void PollWaiter::pause() {
  trace_.printf("waiting...\n");
  trace_.flush();
  sleep_interruptible(2);
}

std::optional<std::string_view> AuditInput::read_line() {
  auto line = reader_.next();
  while (!line && waiter_.keep_going()) {
    waiter_.pause();
    line = reader_.next();
  }
  return line;
}

std::string_view AuditInput::read_section_line() {
  auto line = read_line();
  if (!line) throw SectionAbandoned{};
  return *line;
}

}  // namespace adcdf
