#pragma once

#include <functional>
#include <string>

#include "base/completions.h"
#include "base/logger.h"
#include "controller/controller_client.h"
#include "net/http_session.h"
#include "proxies/proxy_selection.h"
#include "storage/selection_memory.h"
#include "storage/settings_store.h"
#include "sysproxy/system_proxy_requests.h"

namespace qev::proxies {

// Applies the stored configuration to the core (the configuration command with no arguments).
using ApplyConfig = std::function<void(Resolve, Reject)>;

// The connect and disconnect buttons, the node probe behind them, the server list, and the
// restore of the user's proxy choice at start.
class ProxySwitch {
 public:
  ProxySwitch(controller::ControllerClient& controller, net::HttpSession& session,
              ProxySelection& selection, const storage::SelectionMemory& memory,
              const storage::SettingsStore& settings, sysproxy::SystemProxyRequests& systemProxy,
              EnsureCore ensureCore, ApplyConfig applyConfig, ReadOutline outline,
              const base::Logger& log, std::string connectivityCheckUrl);

  // The core's proxy table for the page, or false when the core cannot be asked. Never rejects.
  void getServers(Resolve resolve);
  // Applies the configuration, re-selects the node, probes it, and only then switches the
  // system proxy on; rejects "NODE_UNAVAILABLE" (code 8) when the node does not answer.
  void startProxy(Resolve resolve, Reject reject);
  // Switches the system proxy off; the core keeps running.
  void stopProxy(Resolve resolve);
  // The core's delay test along the user's traffic: through the catch-all target in rule mode,
  // GLOBAL in global mode, the remembered group when the page named one; nothing to test (true)
  // in direct mode.
  void checkSelectedProxyConnectivity(BoolCompletion completion);
  // Switches the system proxy back on after a passing check when the user left it on; `done`
  // hears whether the proxy ended connected, and why, once a restore has run.
  void restoreProxyIfNeeded(std::function<void(bool connected, std::string reason)> done = {});

 private:
  void probeGroup(const std::string& group, BoolCompletion completion);

  controller::ControllerClient& controller_;
  net::HttpSession& session_;
  ProxySelection& selection_;
  const storage::SelectionMemory& memory_;
  const storage::SettingsStore& settings_;
  sysproxy::SystemProxyRequests& systemProxy_;
  EnsureCore ensureCore_;
  ApplyConfig applyConfig_;
  ReadOutline outline_;
  const base::Logger& log_;
  std::string connectivityCheckUrl_;
};

}  // namespace qev::proxies
