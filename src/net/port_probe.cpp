#include "net/port_probe.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace qev::net {

bool acceptsConnections(const std::string& host, int port, std::chrono::milliseconds timeout) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (::inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) return false;
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);  // the flags one call away on macOS too
  if (fd < 0) return false;
  ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
  bool connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  if (!connected && errno == EINPROGRESS) {
    pollfd pending{fd, POLLOUT, 0};
    int error = 0;
    socklen_t length = sizeof error;
    connected = ::poll(&pending, 1, static_cast<int>(timeout.count())) == 1 &&
                ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
  }
  ::close(fd);
  return connected;
}

}  // namespace qev::net
