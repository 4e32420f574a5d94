#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "base/error.h"
#include "base/logger.h"
#include "config/config_outline.h"
#include "controller/controller_client.h"
#include "storage/profile.h"
#include "storage/protected_files.h"
#include "storage/settings_store.h"

namespace qev::core {

// Turns the stored subscription into the configuration the core runs, keeps that protected at
// rest, and puts the plaintext copy in place just before the core reads it.
class RuntimeConfig {
 public:
  RuntimeConfig(const storage::Paths& paths, const storage::ProtectedFiles& files,
                const storage::SettingsStore& settings,
                const controller::ControllerClient& controller, const base::Logger& log);

  // Whether a subscription is stored (protected, or a plaintext copy of an older version).
  bool hasRawSubscriptionConfig() const;
  // Whether there is anything the core could run.
  bool hasRunnableConfig() const;
  Result<std::string> readRawSubscriptionConfigText() const;

  // Builds the runtime configuration from the stored subscription with the saved routing mode
  // and writes it protected and as the plaintext copy. Nothing stored: nothing happens.
  std::optional<BridgeError> normalizeTmpYaml(bool tun) const;

  // Makes sure the plaintext file for the core exists; false (logged) when it cannot.
  bool prepareRuntimeConfigFile() const;

  // The catch-all target and group order of the runtime configuration last written (or, after
  // a start, of the one kept protected from before); empty when there is none.
  config::ConfigOutline outline() const;

 private:
  std::optional<BridgeError> writeBoth(const std::string& text) const;
  // The plaintext copy for the core: the configuration with the controller's access settings.
  std::error_code writeForCore(std::string_view text) const;

  const storage::Paths& paths_;
  const storage::ProtectedFiles& files_;
  const storage::SettingsStore& settings_;
  const controller::ControllerClient& controller_;
  const base::Logger& log_;
  mutable std::mutex outlineMutex_;
  mutable std::optional<config::ConfigOutline> outline_;
};

}  // namespace qev::core
