#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "base/constants.h"
#include "base/error.h"
#include "base/json.h"
#include "base/logger.h"
#include "net/http_session.h"

namespace qev::controller {

using JsonCompletion = std::function<void(Result<Json>)>;

// Percent-encodes a group or proxy name for use as one path segment ("a/b c" -> "a%2Fb%20c").
std::string percentEncodePathComponent(std::string_view name);

// The core's delay test of a node or a group's members: base + "/proxies/<name>/delay" or
// "/group/<name>/delay", with the core's own time limit and the URL it fetches.
std::string delayTestUrl(const std::string& base, std::string_view collection,
                         std::string_view name, int timeoutMs, std::string_view checkUrl);

// The one client through which every call to the core's controller goes.
class ControllerClient {
 public:
  ControllerClient(net::HttpSession& session, const base::Logger& log,
                   std::string base = std::string(kControllerBase));

  const std::string& base() const { return base_; }

  // A fresh secret for the next core: 32 random bytes from the system, hex-encoded. False (and
  // no secret) when the system has no randomness to give.
  bool renewSecret();
  // The secret the core is started with; "" before the first renewal.
  std::string secret() const;
  // Adds the core's Authorization header to a request for its controller.
  void authorize(net::HttpRequest& request) const;

  // 10 s time-out; a body goes out as compact JSON with Content-Type application/json. A 204 or
  // empty body is success `true`; the status is not examined. An unparsable URL fails at once
  // with code 4 "bad URL".
  void httpJSON(std::string method, const std::string& url, std::optional<Json> body,
                JsonCompletion completion);

  // DELETE /connections; logs the outcome; the completion always runs once.
  void closeConnections(std::function<void()> completion);

 private:
  net::HttpSession& session_;
  const base::Logger& log_;
  std::string base_;
  mutable std::mutex secretMutex_;
  std::string secret_;
};

}  // namespace qev::controller
