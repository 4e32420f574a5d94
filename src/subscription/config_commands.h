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

  Json configPayload() const;
  void normalizeConfig(Resolve resolve, Reject reject);
  void updateConfig(const Json& args, Resolve resolve, Reject reject);
  void writeConfig(const Json& args, Resolve resolve, Reject reject);
  void putConfig(const Json& args, Resolve resolve, Reject reject);

 private:
  // A mode named by the arguments goes to the live settings update; true when it did.
  bool forwardMode(const Json& args, const Resolve& resolve, const Reject& reject);
  void download(const std::string& url, Resolve resolve, Reject reject);
  void applyStoredConfig(Resolve resolve, Reject reject);
  void rejectInvalid(std::string_view reason, const Reject& reject) const;

  ConfigCommandsDeps deps_;
};

}  // namespace qev::subscription
