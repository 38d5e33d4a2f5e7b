#include "support/notify.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace adcdf {

Notifier::Notifier() {
  const char* socket_path = std::getenv("NOTIFY_SOCKET");
  if (socket_path == nullptr || (socket_path[0] != '/' && socket_path[0] != '@')) return;
  size_t length = std::strlen(socket_path);
  if (length >= sizeof address_.sun_path) return;
  address_.sun_family = AF_UNIX;
  std::memcpy(address_.sun_path, socket_path, length);
  if (socket_path[0] == '@') address_.sun_path[0] = '\0';  // an abstract address
  address_size_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
  fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);

  const char* usec = std::getenv("WATCHDOG_USEC");
  const char* pid = std::getenv("WATCHDOG_PID");
  if (usec != nullptr && (pid == nullptr || std::atol(pid) == ::getpid())) {
    watchdog_ = std::chrono::microseconds(std::atoll(usec)) / 2;
  }
}

Notifier::~Notifier() {
  if (fd_ >= 0) ::close(fd_);
}

void Notifier::send(std::string_view message) {
  if (fd_ < 0) return;
  ::sendto(fd_, message.data(), message.size(), MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&address_), address_size_);
}

void Notifier::ping_watchdog() {
  if (fd_ < 0 || watchdog_ <= std::chrono::steady_clock::duration::zero()) return;
  auto now = std::chrono::steady_clock::now();
  if (now - pinged_ < watchdog_) return;
  pinged_ = now;
  send("WATCHDOG=1");
}

}  // namespace adcdf
