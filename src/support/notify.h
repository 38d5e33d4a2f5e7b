// The service manager's notification socket: readiness, status and watchdog pings.
//
// When systemd starts the daemon with Type=notify it passes the socket's address in
// $NOTIFY_SOCKET (a path, or an abstract address starting with '@'), and with WatchdogSec= the
// interval in $WATCHDOG_USEC. Each message is one datagram such as "READY=1". Without the
// variable nothing is sent and nothing else changes; a message that cannot be sent is dropped,
// since the service manager is only being told how things go.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <string>
#include <string_view>

namespace adcdf {

class Notifier {
 public:
  // Reads the environment.
  Notifier();
  ~Notifier();
  Notifier(const Notifier&) = delete;
  Notifier& operator=(const Notifier&) = delete;

  bool active() const { return fd_ >= 0; }
  void send(std::string_view message);
  // "WATCHDOG=1" once half the watchdog interval has passed since the last one.
  void ping_watchdog();

 private:
  int fd_ = -1;
  sockaddr_un address_{};
  socklen_t address_size_ = 0;
  std::chrono::steady_clock::duration watchdog_{};  // zero when the unit has no watchdog
  std::chrono::steady_clock::time_point pinged_{};
};

}  // namespace adcdf
