#pragma once

#include <functional>
#include <string>

#include "base/completions.h"
#include "base/executors.h"
#include "base/logger.h"
#include "core/runtime_config.h"
#include "net/http_session.h"
#include "proxies/proxy_selection.h"
#include "proxies/runtime_settings.h"
#include "storage/protected_files.h"
#include "storage/selection_memory.h"
#include "storage/settings_store.h"
#include "subscription/subscription_record.h"
#include "sysproxy/system_proxy_requests.h"

namespace qev::subscription {

// What the configuration commands need from outside their own folder.
struct ConfigCommandsDeps {
  net::HttpSession& session;
  base::Executors& executors;
  const storage::Paths& paths;
  const storage::ProtectedFiles& files;
  const core::RuntimeConfig& runtimeConfig;
  const storage::SettingsStore& settings;
  const storage::SelectionMemory& selection;
  sysproxy::SystemProxyRequests& systemProxy;
  proxies::ProxySelection& proxySelection;
  proxies::RuntimeSettings& runtimeSettings;
  std::function<void(BoolCompletion)> reloadOrRestartCore;
  std::function<void()> ensureGeoDataFiles;
  std::function<std::string()> fallbackApiBase;
  std::string platformName;  // "darwin" or "linux"
  const base::Logger& log;
};

// The page's configuration commands: report, download and apply the subscription, and
// (re)apply the stored configuration to the core.
class ConfigCommands {
 public:
  explicit ConfigCommands(ConfigCommandsDeps deps);

  // What an automatic refresh came to.
  enum class Refresh { kUpdated, kUnchanged, kNoLink };
  using RefreshCompletion = std::function<void(Result<Refresh>)>;

  Json configPayload() const;
  void normalizeConfig(Resolve resolve, Reject reject);
  void updateConfig(const Json& args, Resolve resolve, Reject reject);
  void writeConfig(const Json& args, Resolve resolve, Reject reject);
  void putConfig(const Json& args, Resolve resolve, Reject reject);

  // Downloads the stored link again. A changed subscription replaces the stored one and is
  // applied when `applyToRunningCore` says a core runs; a failure keeps the old one.
  void refresh(std::function<void(BoolCompletion)> applyToRunningCore, RefreshCompletion done);
  std::optional<SubscriptionRecord> record() const { return records_.load(); }

 private:
  struct Fetched {
    std::string body;  // checked: the core can run it
    SubscriptionRecord record;
  };
  void fetch(const std::string& url, std::function<void(Result<Fetched>)> done);
  // Stores a fetched subscription and its record and prepares the runtime configuration.
  std::optional<BridgeError> store(const Fetched& fetched);
  // A mode named by the arguments goes to the live settings update; true when it did.
  bool forwardMode(const Json& args, const Resolve& resolve, const Reject& reject);
  void download(const std::string& url, Resolve resolve, Reject reject);
  void applyStoredConfig(Resolve resolve, Reject reject);
  BridgeError invalid(std::string_view reason) const;

  ConfigCommandsDeps deps_;
  SubscriptionRecordStore records_;
};

}  // namespace qev::subscription
