#include "sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>

namespace fake_core {
namespace {

std::string goErrno(int err) {
  std::string text = std::strerror(err);
  if (!text.empty()) text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
  return text;
}

}  // namespace

std::string joinHostPort(const std::string& host, int port) {
  if (host.find(':') != std::string::npos) return "[" + host + "]:" + std::to_string(port);
  return host + ":" + std::to_string(port);
}

int listenTcp(const std::string& host, int port, std::string& error) {
  const std::string where = "listen tcp " + joinHostPort(host, port);
  if (port < 0 || port > 65535) {
    error = where + ": address " + std::to_string(port) + ": invalid port";
    return -1;
  }
  sockaddr_storage address{};
  socklen_t length = 0;
  std::string numeric = host == "localhost" ? "127.0.0.1" : host;
  if (numeric.empty()) numeric = "0.0.0.0";
  auto* v4 = reinterpret_cast<sockaddr_in*>(&address);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&address);
  if (inet_pton(AF_INET, numeric.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(static_cast<uint16_t>(port));
    length = sizeof(sockaddr_in);
  } else if (inet_pton(AF_INET6, numeric.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(static_cast<uint16_t>(port));
    length = sizeof(sockaddr_in6);
  } else {
    error = where + ": lookup " + host + ": no such host";
    return -1;
  }
  const int fd = socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = where + ": socket: " + goErrno(errno);
    return -1;
  }
  int yes = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
    error = where + ": bind: " + goErrno(errno);
    close(fd);
    return -1;
  }
  if (listen(fd, 128) != 0) {
    error = where + ": listen: " + goErrno(errno);
    close(fd);
    return -1;
  }
  return fd;
}

int boundPort(int fd) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
  if (address.ss_family == AF_INET)
    return ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
  if (address.ss_family == AF_INET6) {
    return ntohs(reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
  }
  return 0;
}

}  // namespace fake_core
