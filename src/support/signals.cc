#include "support/signals.h"

#include <cerrno>
#include <ctime>

namespace adcdf {

volatile std::sig_atomic_t bContinue = 1;
volatile std::sig_atomic_t gbNewGenerationRequested = 0;

void adcdf_sighandler1(int) {
  gbNewGenerationRequested = 1;
}

void adcdf_sighandler2(int) {
  bContinue = 0;
}

void util_Signal(int signo, void (*handler)(int)) {
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
