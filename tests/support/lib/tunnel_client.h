#pragma once

// A client of the core's mixed port (33210) that tunnels to a loopback port and fetches "/" once,
// then keeps the tunnel open: a connection the core lists until someone closes it.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace qev::test {

class TunnelClient {
 public:
  explicit TunnelClient(int port) {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(33210);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return;
    const std::string target = "127.0.0.1:" + std::to_string(port);
    send("CONNECT " + target + " HTTP/1.1\r\nHost: " + target + "\r\n\r\n");
    established_ = receive().rfind("HTTP/1.1 200", 0) == 0;
    send("GET / HTTP/1.1\r\nHost: " + target + "\r\n\r\n");
    for (int part = 0; part < 4 && page_.find("</p>") == std::string::npos; ++part) {
      page_ += receive();
    }
  }
  ~TunnelClient() { ::close(fd_); }

  bool established() const { return established_; }
  const std::string& page() const { return page_; }
  // Whether the core has closed the tunnel (a read sees the end).
  bool closedByPeer() const {
    char byte;
    return ::recv(fd_, &byte, 1, MSG_DONTWAIT) == 0;
  }

 private:
  void send(const std::string& text) const { (void)!::send(fd_, text.data(), text.size(), 0); }
  std::string receive() const {
    char buffer[4096];
    const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
    return n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : std::string();
  }

  int fd_ = -1;
  bool established_ = false;
  std::string page_;
};

}  // namespace qev::test
