#pragma once

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "config.h"
#include "connections.h"
#include "core_log.h"
#include "inbound_listeners.h"
#include "json_lines.h"
#include "knobs.h"
#include "proxy_table.h"
#include "selection_store.h"

namespace fake_core {

// Where the core was started from, for reloads and the configuration log.
struct LaunchContext {
  std::filesystem::path homeDir;
  std::filesystem::path configFile;
  std::vector<std::string> argv;
  std::optional<std::string> secretOverride;  // -secret
};

// The running core's state, shared by the controller's threads and the signal loop; every
// call is serialised by one mutex.
class CoreRuntime {
 public:
  struct DelayAnswer {
    int status = 200;  // 200, 504 (time-out) or 503 (any other failure)
    int delay = 0;
  };

  CoreRuntime(const LaunchContext& launch, const Knobs& knobs, CoreLog& log,
              InboundListeners& listeners, JsonLinesFile& configLog);

  // Applies a configuration; listener ports and LAN access change only with `force`.
  void apply(const CoreConfig& config, bool force);
  // Loads a file (the -f file when `path` is empty) or a YAML text, and records the attempt in
  // the configuration log under `event`.
  LoadResult loadFile(const std::filesystem::path& path, const std::string& event);
  LoadResult loadText(const std::string& text, const std::string& event);
  // Loads and applies; the load error's text when it fails, in which case nothing changes.
  std::optional<std::string> reloadFile(const std::filesystem::path& path, bool force,
                                        const std::string& event);
  std::optional<std::string> reloadText(const std::string& text, bool force);

  std::string secret() const;
  // The CORS grant for an origin: the value of Access-Control-Allow-Origin, or none.
  std::optional<std::string> corsGrant(const std::string& origin) const;
  bool corsPrivateNetwork() const;
  nlohmann::json proxies() const;
  std::optional<nlohmann::json> proxy(const std::string& name) const;
  bool hasProxy(const std::string& name) const;
  ProxyTable::SelectResult select(const std::string& group, const std::string& member);
  bool unpin(const std::string& group);
  DelayAnswer delayTest(const std::string& name, int timeoutMs, const std::string& url);
  // GET /group/{name}/delay: every member tested; none when `name` is no group.
  std::optional<nlohmann::json> groupDelayTest(const std::string& name, int timeoutMs,
                                               const std::string& url);
  // How a new connection is routed now: mode, the catch-all rule and the selections.
  Route route() const;

  nlohmann::ordered_json general() const;
  // Applies a PATCH /configs body; false (nothing applied) when a value is invalid.
  bool patch(const nlohmann::json& body);

 private:
  std::string bindHost() const;
  void recordLoad(const std::string& event, const std::string& path, const std::string& text,
                  const std::string& error);

  const LaunchContext& launch_;
  const Knobs& knobs_;
  CoreLog& log_;
  InboundListeners& listeners_;
  JsonLinesFile& configLog_;

  mutable std::mutex mutex_;
  SelectionStore selections_;
  ProxyTable table_;
  bool allowLan_ = false;
  std::string bindAddress_ = "*";
  Mode mode_ = Mode::kRule;
  bool ipv6_ = true;
  bool geoAutoUpdate_ = false;
  TunSettings tun_;
  std::string secret_;
  std::string matchTarget_ = "DIRECT";  // the target of the MATCH rule
  std::vector<std::string> corsOrigins_{"*"};
  bool corsPrivateNetwork_ = true;
};

}  // namespace fake_core
