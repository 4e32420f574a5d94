#pragma once

#include <functional>
#include <string>

#include "base/completions.h"
#include "base/logger.h"
#include "core/runtime_config.h"
#include "storage/profile.h"
#include "storage/settings_store.h"

namespace qev::core {

// Reads the launcher's verdict on administrator authorisation and undoes a TUN switch that the
// user refused.
class TunRollback {
 public:
  TunRollback(const storage::Paths& paths, const storage::SettingsStore& settings,
              const RuntimeConfig& runtimeConfig, const base::Logger& log);

  // Both markers of a refused or cancelled authorisation exist in the data folder.
  bool tunAdminAuthorizationFailed() const;
  // Stores TUN off and rebuilds the runtime configuration without it.
  void rollbackTunAfterAdminFailure() const;

 private:
  const storage::Paths& paths_;
  const storage::SettingsStore& settings_;
  const RuntimeConfig& runtimeConfig_;
  const base::Logger& log_;
};

// What switching TUN needs from the core supervisor and the proxy selection.
struct TunSwitchHooks {
  std::function<void(std::string reason, BoolCompletion)> restartCore;  // serialized restart
  std::function<void(bool)> setTunRuntimeEnsured;
  std::function<void(DoneCompletion)> reapplySelection;
};

// The page's TUN switch: store, rebuild, restart, and fall back when authorisation was refused.
class TunSwitch {
 public:
  TunSwitch(const storage::SettingsStore& settings, const RuntimeConfig& runtimeConfig,
            const TunRollback& rollback, TunSwitchHooks hooks, const base::Logger& log);

  // Answers with the settings (whose "tun" tells whether the switch took) or code 32.
  void setTun(bool enabled, Resolve resolve, Reject reject);

 private:
  const storage::SettingsStore& settings_;
  const RuntimeConfig& runtimeConfig_;
  const TunRollback& rollback_;
  TunSwitchHooks hooks_;
  const base::Logger& log_;
};

}  // namespace qev::core
