#include "support/signals.h"

#include <cerrno>
#include <ctime>

namespace adcdf {

volatile std::sig_atomic_t keep_running = 1;
volatile std::sig_atomic_t new_generation_requested = 0;

void on_new_generation_signal(int) {
  new_generation_requested = 1;
}

void on_stop_signal(int) {
  keep_running = 0;
}

void install_handler(int signo, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // no SA_RESTART and no SA_RESETHAND: interrupt sleeps, stay installed
  sigaction(signo, &action, nullptr);
}

void sleep_interruptible(unsigned seconds) {
  struct timespec request {
    static_cast<time_t>(seconds), 0
  };
  // One nanosleep: a signal ends it early with EINTR, which is what we want.
  nanosleep(&request, nullptr);
}

}  // namespace adcdf
