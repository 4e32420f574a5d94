#include "inbound_listeners.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "sockets.h"

namespace fake_core {

InboundListeners::InboundListeners(CoreLog& log) : log_(log) {}

InboundListeners::~InboundListeners() {
  closeAll();
}

void InboundListeners::apply(const InboundPorts& wanted, const std::string& host) {
  recreate(http_, wanted.http, host);
  recreate(socks_, wanted.socks, host);
  recreate(mixed_, wanted.mixed, host);
}

void InboundListeners::applyExtra(const std::vector<std::pair<std::string, int>>& wanted) {
  for (auto& listener : extra_) close(listener);
  extra_.clear();
  for (const auto& [host, port] : wanted) {
    recreate(extra_.emplace_back("Inbound", "Inbound"), port, host);
  }
}

InboundPorts InboundListeners::bound() const {
  return {http_.port, socks_.port, mixed_.port};
}

void InboundListeners::closeAll() {
  close(http_);
  close(socks_);
  close(mixed_);
  for (auto& listener : extra_) close(listener);
}

void InboundListeners::close(Listener& listener) {
  if (listener.fd >= 0) {
    // Wakes the acceptor, which then sees the socket is no longer listening.
    shutdown(listener.fd, SHUT_RDWR);
    if (listener.acceptor.joinable()) listener.acceptor.join();
    ::close(listener.fd);
  }
  listener.fd = -1;
  listener.port = 0;
  listener.host.clear();
}

void InboundListeners::recreate(Listener& listener, int port, const std::string& host) {
  if (listener.fd >= 0 && listener.port == port && listener.host == host) return;
  close(listener);
  if (port == 0) return;
  std::string error;
  const int fd = listenTcp(host, port, error);
  if (fd < 0) {
    log_.error(std::string("Start ") + listener.errorLabel + " server error: " + error);
    return;
  }
  listener.fd = fd;
  listener.port = boundPort(fd);
  listener.host = host;
  const bool servesHttp = &listener == &http_ || &listener == &mixed_;
  std::function<void(int)> handler = servesHttp ? httpClientHandler_ : nullptr;
  listener.acceptor = std::thread([fd, handler] {
    for (;;) {
      const int connection = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection >= 0) {
        if (handler) {
          std::thread([handler, connection] { handler(connection); }).detach();
        } else {
          ::close(connection);
        }
      } else if (errno != EINTR && errno != ECONNABORTED) {
        return;
      }
    }
  });
  log_.info(std::string(listener.startLabel) +
            " listening at: " + joinHostPort(host, listener.port));
}

}  // namespace fake_core
