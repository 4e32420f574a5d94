#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <system_error>

#include "base/json.h"
#include "base/logger.h"
#include "storage/profile.h"
#include "storage/selection_memory.h"

namespace qev::storage {

// Serialises pretty-printed with sorted keys and writes atomically.
std::error_code writeJSON(const Json& object, const fs::path& file);

// The settings file "qevjs-local.json": a JSON object whose unknown keys survive every write.
// No cache: every read goes to the file; writers read-modify-write the whole object.
class SettingsStore {
 public:
  SettingsStore(const Paths& paths, const SelectionMemory& selection, const base::Logger& log);

  // The seven keys with their defaults; built afresh because some come from live state.
  Json defaultSettings() const;
  // Start-up repair: writes defaults over a missing or malformed file, fills missing keys,
  // normalises "mode" and mirrors the auto-launch file. Never fails outward.
  void ensureLocalSettings() const;
  // The stored object completed with defaults, "mode" normalised, "autoLaunch" from the file
  // system. Never fails: an unreadable or malformed file reads as the defaults.
  Json readSettings() const;
  // readSettings(), change(object), writeJSON to the settings file, all under one lock so that
  // concurrent writers never undo each other's change.
  std::error_code update(const std::function<void(Json&)>& change) const;

  // Sets "proxyEnabled"; logs "native.proxyEnabled.save.error: ..." on failure.
  void persistProxyEnabled(bool enabled) const;
  // "rule", "global" or "direct".
  std::string readModeSetting() const;
  bool readTunSetting() const;
  bool isAutoLaunchEnabled() const;

 private:
  const Paths& paths_;
  const SelectionMemory& selection_;
  const base::Logger& log_;
  mutable std::mutex writeMutex_;  // every read-modify-write of the settings file
};

}  // namespace qev::storage
