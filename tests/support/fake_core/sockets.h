#pragma once

#include <string>

namespace fake_core {

// A TCP socket listening on host:port with SO_REUSEADDR (as the core's runtime sets it, and
// no SO_REUSEPORT, so a port in use is refused). Returns the descriptor, or -1 with `error`
// set to the core's wording, e.g. "listen tcp 127.0.0.1:33210: bind: address already in use".
int listenTcp(const std::string& host, int port, std::string& error);

// The port a listening socket is bound to.
int boundPort(int fd);

// "host:port", with IPv6 hosts in brackets.
std::string joinHostPort(const std::string& host, int port);

}  // namespace fake_core
