#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "base/error.h"
#include "base/json.h"
#include "base/logger.h"
#include "controller/controller_client.h"
#include "net/http_session.h"
#include "net/url.h"
#include "relay/relay_records.h"
#include "storage/settings_store.h"

namespace qev::relay {

using ResolveReply = std::function<void(Json)>;
using RejectReply = std::function<void(BridgeError)>;

// Makes HTTP requests on behalf of the page, which cannot leave its custom scheme. Answers the
// panel's usage report locally, points the frontend's "SELECT" alias at the product's group,
// remembers routing-mode changes sent straight to the core, adapts the login reply, and logs
// every request with its secrets masked.
class HttpRelay {
 public:
  HttpRelay(net::HttpSession& session, controller::ControllerClient& controller,
            const storage::SettingsStore& settings, const base::Logger& log, std::string apiBase);

  // The `httpRequest` command. Resolves {status, statusText, headers, body}; a transport failure
  // rejects with the transport's description, except for the remote frontend configuration,
  // which gets a 503 reply so the frontend falls back to its built-in one.
  void nativeHttpRequest(const Json& args, ResolveReply resolve, RejectReply reject);

  const std::string& apiBase() const { return apiBase_; }

 private:
  void rememberModeChange(const net::HttpRequest& request);
  void complete(const net::HttpRequest& request, bool closeConnectionsAfter,
                Result<net::HttpResponse> outcome, const ResolveReply& resolve,
                const RejectReply& reject);

  net::HttpSession& session_;
  controller::ControllerClient& controller_;
  const storage::SettingsStore& settings_;
  const base::Logger& log_;
  std::string apiBase_;
  std::optional<net::Url> apiBaseUrl_;
};

}  // namespace qev::relay
