#pragma once

#include <functional>
#include <list>
#include <utility>
#include <vector>

#include <string>
#include <thread>

#include "core_log.h"

namespace fake_core {

struct InboundPorts {
  int http = 0;
  int socks = 0;
  int mixed = 0;
};

// The core's HTTP, SOCKS and mixed inbound ports, held open as plain listening sockets whose
// connections are accepted and closed at once. Not thread-safe: the runtime serialises calls.
class InboundListeners {
 public:
  explicit InboundListeners(CoreLog& log);
  // Who serves clients of the HTTP and mixed ports (each on a thread of its own); until set,
  // and on the other ports, connections are accepted and closed at once.
  void setHttpClientHandler(std::function<void(int fd)> handler) {
    httpClientHandler_ = std::move(handler);
  }
  ~InboundListeners();
  InboundListeners(const InboundListeners&) = delete;
  InboundListeners& operator=(const InboundListeners&) = delete;

  // Re-creates every listener whose port or host changed; port 0 closes it. A failed bind is
  // logged as the core logs it, and that port then reads 0.
  void apply(const InboundPorts& wanted, const std::string& host);
  // The `listeners` and `tunnels` of a configuration: each (host, port) is opened anew.
  void applyExtra(const std::vector<std::pair<std::string, int>>& wanted);
  InboundPorts bound() const;
  void closeAll();

 private:
  struct Listener {
    Listener(const char* start, const char* error) : startLabel(start), errorLabel(error) {}
    const char* startLabel;  // "HTTP proxy", ...
    const char* errorLabel;  // "HTTP", ...
    int port = 0;            // bound port; 0 when closed
    std::string host;
    int fd = -1;
    std::thread acceptor;
  };

  void recreate(Listener& listener, int port, const std::string& host);
  static void close(Listener& listener);

  CoreLog& log_;
  std::function<void(int)> httpClientHandler_;
  Listener http_{"HTTP proxy", "HTTP"};
  Listener socks_{"SOCKS proxy", "SOCKS"};
  Listener mixed_{"Mixed(http+socks) proxy", "Mixed(http+socks)"};
  std::list<Listener> extra_;
};

}  // namespace fake_core
