// The two signals the daemon answers.
//
// SIGTERM clears keep_running: the processing loop stops at its next test (after the section in
// hand, or at once while it waits). SIGUSR1 asks for a new output generation at the next
// section: the section reader sees the request, forgets the last section's date and so starts a
// new generation. The handlers only store into these flags; they stay installed after running.
#pragma once

#include <csignal>

namespace adcdf {

extern volatile std::sig_atomic_t keep_running;
extern volatile std::sig_atomic_t new_generation_requested;

void on_new_generation_signal(int signo);  // SIGUSR1
void on_stop_signal(int signo);            // SIGTERM

// Installs `handler` for `signo` so that it runs for every delivery, and so that a sleep is cut
// short by it.
void install_handler(int signo, void (*handler)(int));

// Sleeps up to `seconds`, returning early when a signal arrives.
void sleep_interruptible(unsigned seconds);

}  // namespace adcdf
