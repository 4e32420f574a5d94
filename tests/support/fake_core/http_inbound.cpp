#include "http_inbound.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>

namespace fake_core {
namespace {

constexpr std::size_t kMaxHead = 64 * 1024;

bool sendAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

struct Target {
  std::string host;
  std::string port;
};

// "host:port", "[v6]:port"
std::optional<Target> splitAuthority(const std::string& authority, const std::string& defaultPort) {
  if (authority.empty()) return std::nullopt;
  if (authority.front() == '[') {
    const auto close = authority.find(']');
    if (close == std::string::npos) return std::nullopt;
    const std::string rest = authority.substr(close + 1);
    return Target{authority.substr(1, close - 1),
                  rest.size() > 1 && rest[0] == ':' ? rest.substr(1) : defaultPort};
  }
  const auto colon = authority.rfind(':');
  if (colon == std::string::npos) return Target{authority, defaultPort};
  return Target{authority.substr(0, colon), authority.substr(colon + 1)};
}

int dial(const Target& target, std::string& address) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(target.host.c_str(), target.port.c_str(), &hints, &found) != 0) return -1;
  int fd = -1;
  for (addrinfo* a = found; a != nullptr && fd < 0; a = a->ai_next) {
    fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
    if (fd < 0) continue;
    if (::connect(fd, a->ai_addr, a->ai_addrlen) != 0) {
      ::close(fd);
      fd = -1;
      continue;
    }
    char text[INET6_ADDRSTRLEN] = {};
    const void* raw =
        a->ai_family == AF_INET
            ? static_cast<const void*>(&reinterpret_cast<sockaddr_in*>(a->ai_addr)->sin_addr)
            : static_cast<const void*>(&reinterpret_cast<sockaddr_in6*>(a->ai_addr)->sin6_addr);
    ::inet_ntop(a->ai_family, raw, text, sizeof text);
    address = text;
  }
  ::freeaddrinfo(found);
  return fd;
}

void peerOf(int fd, std::string& ip, std::string& port) {
  sockaddr_storage peer{};
  socklen_t length = sizeof peer;
  if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return;
  char text[INET6_ADDRSTRLEN] = {};
  if (peer.ss_family == AF_INET) {
    const auto* v4 = reinterpret_cast<sockaddr_in*>(&peer);
    ::inet_ntop(AF_INET, &v4->sin_addr, text, sizeof text);
    port = std::to_string(ntohs(v4->sin_port));
  } else {
    const auto* v6 = reinterpret_cast<sockaddr_in6*>(&peer);
    ::inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof text);
    port = std::to_string(ntohs(v6->sin6_port));
  }
  ip = text;
}

// Copies both ways until either side ends, counting bytes as they pass.
void relay(int client, int upstream, const std::string& id, ConnectionTable& connections) {
  char buffer[16384];
  for (;;) {
    pollfd fds[2] = {{client, POLLIN, 0}, {upstream, POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].revents == 0) continue;
      const int from = i == 0 ? client : upstream;
      const int to = i == 0 ? upstream : client;
      const ssize_t n = ::recv(from, buffer, sizeof buffer, 0);
      if (n <= 0 || !sendAll(to, buffer, static_cast<std::size_t>(n))) return;
      const auto bytes = static_cast<std::uint64_t>(n);
      connections.count(id, i == 0 ? bytes : 0, i == 0 ? 0 : bytes);
    }
  }
}

}  // namespace

void serveHttpProxyClient(int client, InboundContext& context) {
  std::string head;
  char buffer[4096];
  std::size_t end = std::string::npos;
  while ((end = head.find("\r\n\r\n")) == std::string::npos && head.size() < kMaxHead) {
    const ssize_t n = ::recv(client, buffer, sizeof buffer, 0);
    if (n <= 0) {
      ::close(client);
      return;
    }
    head.append(buffer, static_cast<std::size_t>(n));
  }
  if (end == std::string::npos) {
    ::close(client);
    return;
  }
  std::string rest = head.substr(end + 4);
  head.resize(end + 4);
  const auto lineEnd = head.find("\r\n");
  const std::string requestLine = head.substr(0, lineEnd);
  const auto firstBlank = requestLine.find(' ');
  const auto lastBlank = requestLine.rfind(' ');
  if (firstBlank == std::string::npos || lastBlank == firstBlank) {
    ::close(client);
    return;
  }
  const std::string method = requestLine.substr(0, firstBlank);
  const std::string target = requestLine.substr(firstBlank + 1, lastBlank - firstBlank - 1);
  const std::string version = requestLine.substr(lastBlank + 1);
  const bool tunnel = method == "CONNECT";

  std::optional<Target> destination;
  std::string forwarded;  // what goes upstream before relaying
  if (tunnel) {
    destination = splitAuthority(target, "443");
  } else if (target.rfind("http://", 0) == 0) {
    const auto slash = target.find('/', 7);
    destination =
        splitAuthority(target.substr(7, slash == std::string::npos ? slash : slash - 7), "80");
    const std::string path = slash == std::string::npos ? "/" : target.substr(slash);
    forwarded = method + " " + path + " " + version + head.substr(lineEnd) + rest;
  }
  if (!destination) {
    const std::string refused = "HTTP/1.1 400 Bad Request\r\nConnection: close\r\n\r\n";
    sendAll(client, refused.data(), refused.size());
    ::close(client);
    return;
  }

  ConnectionMetadata metadata;
  metadata.type = tunnel ? "HTTPS" : "HTTP";
  metadata.host = destination->host;
  metadata.destinationPort = destination->port;
  peerOf(client, metadata.sourceIP, metadata.sourcePort);
  const Route route = context.route();
  const int upstream = dial(*destination, metadata.destinationIP);
  if (upstream < 0) {
    context.log.warning("[TCP] dial " + (route.chains.empty() ? "DIRECT" : route.chains.back()) +
                        " " + metadata.sourceIP + ":" + metadata.sourcePort + " --> " +
                        destination->host + ":" + destination->port + " error: connect failed");
    const std::string failed = "HTTP/1.1 502 Bad Gateway\r\nConnection: close\r\n\r\n";
    sendAll(client, failed.data(), failed.size());
    ::close(client);
    return;
  }
  context.log.info("[TCP] " + metadata.sourceIP + ":" + metadata.sourcePort + " --> " +
                   destination->host + ":" + destination->port + " " + route.logSuffix);
  const std::string id = context.connections.open(metadata, route, {client, upstream});
  bool ready = true;
  if (tunnel) {
    const std::string established = "HTTP/1.1 200 Connection established\r\n\r\n";
    ready = sendAll(client, established.data(), established.size()) &&
            (rest.empty() || sendAll(upstream, rest.data(), rest.size()));
  } else {
    ready = sendAll(upstream, forwarded.data(), forwarded.size());
    if (ready) context.connections.count(id, forwarded.size(), 0);
  }
  if (ready) relay(client, upstream, id, context.connections);
  context.connections.remove(id);
  ::close(upstream);
  ::close(client);
}

}  // namespace fake_core
