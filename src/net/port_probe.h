#pragma once

#include <chrono>
#include <string>

namespace qev::net {

// Whether something accepts a TCP connection on the IPv4 `host` and `port` within `timeout`.
// Blocking; never on the main thread.
bool acceptsConnections(const std::string& host, int port, std::chrono::milliseconds timeout);

}  // namespace qev::net
