#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>

#include "base/completions.h"
#include "base/json.h"
#include "controller/controller_client.h"
#include "controller/live_feed.h"
#include "proxies/proxy_selection.h"

namespace qev::proxies {

// The core's connection list as the page shows it: {connections: [{id, host, destination,
// network, chains, rule, upload, download, start}], uploadTotal, downloadTotal}.
Json connectionsForPage(const Json& coreReply);

// The page's commands for live views: traffic, connections, the core's log, delay tests and
// versions. Traffic and log lines come from the live feed's memory; the connection list is
// fetched at most once a second, however often the page asks.
class LiveCommands {
 public:
  LiveCommands(controller::ControllerClient& controller, const controller::LiveFeed& feed,
               ReadOutline outline, std::string appVersion, std::string delayTestUrl);

  void getTraffic(const Resolve& resolve) const;
  void getConnections(Resolve resolve);
  void closeConnection(const Json& args, Resolve resolve, Reject reject);
  void closeAllConnections(Resolve resolve);
  void getLogs(const Json& args, const Resolve& resolve) const;
  // {name} tests one node or group, {group} every member of a group: {name: ms or null}.
  void testDelay(const Json& args, Resolve resolve, Reject reject);
  void getVersion(Resolve resolve);

 private:
  void testGroup(const std::string& group, Resolve resolve, Reject reject);
  void forgetConnections();

  controller::ControllerClient& controller_;
  const controller::LiveFeed& feed_;
  ReadOutline outline_;
  std::string appVersion_;
  std::string delayTestUrl_;

  std::mutex connectionsMutex_;
  std::optional<Json> connections_;  // the last list, while fresh
  std::chrono::steady_clock::time_point fetchedAt_;
};

}  // namespace qev::proxies
