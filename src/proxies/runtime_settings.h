#pragma once

#include "base/completions.h"
#include "base/logger.h"
#include "controller/controller_client.h"
#include "proxies/proxy_selection.h"
#include "storage/settings_store.h"

namespace qev::proxies {

// Live changes of the core's settings (in practice the routing mode) through the controller,
// without a restart; the mode is remembered in the settings first.
class RuntimeSettings {
 public:
  RuntimeSettings(controller::ControllerClient& controller, const storage::SettingsStore& settings,
                  EnsureCore ensureCore, const base::Logger& log);

  // `config` is a JSON object; rejects "mihomo not running" (31) without a controller.
  void updateRuntimeConfig(Json config, Resolve resolve, Reject reject);

 private:
  controller::ControllerClient& controller_;
  const storage::SettingsStore& settings_;
  EnsureCore ensureCore_;
  const base::Logger& log_;
};

}  // namespace qev::proxies
