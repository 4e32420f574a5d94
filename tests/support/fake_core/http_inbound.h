#pragma once

#include <functional>

#include "connections.h"
#include "core_log.h"

namespace fake_core {

// What an inbound connection needs from the running core.
struct InboundContext {
  ConnectionTable& connections;
  CoreLog& log;
  std::function<Route()> route;  // how new traffic is routed now
};

// Serves one client of the HTTP or mixed port as an HTTP proxy (CONNECT, or a request in
// absolute form) that dials the destination itself: the bytes really pass, and are counted.
// Blocking until either side closes; closes `client`.
void serveHttpProxyClient(int client, InboundContext& context);

}  // namespace fake_core
