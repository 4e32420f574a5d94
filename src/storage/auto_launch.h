#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/error.h"
#include "base/json.h"
#include "base/logger.h"
#include "storage/profile.h"
#include "storage/settings_store.h"

namespace qev::storage {

// XML escaping for a property-list string: & < > and the double quote (the apostrophe stays).
std::string escapePlistString(std::string_view text);
// A path as the Exec key of a desktop entry wants it: double-quoted, with " ` $ \ escaped by a
// backslash, when it holds a blank or one of those four; otherwise unchanged.
std::string escapeDesktopExec(std::string_view path);

// The per-user launch agent that opens `bundlePath` at login (macOS).
std::string launchAgentPlist(std::string_view bundlePath);
// The autostart desktop entry that runs `executablePath` at login (Linux desktops).
std::string autostartDesktopEntry(std::string_view executablePath);

// Start at login. The auto-launch file's existence is the state; the settings key "autoLaunch"
// only mirrors it.
class AutoLaunch {
 public:
  AutoLaunch(Platform platform, const Paths& paths, const SettingsStore& settings,
             const base::Logger& log);

  // The file's text for this platform.
  std::string fileText() const;
  // Writes (enabled) or removes the file, mirrors it in the settings and answers the settings
  // read afresh. A failure is logged and returned; steps already done stay done.
  Result<Json> setAutoLaunch(bool enabled) const;

 private:
  // The description of the first failing step, or nothing.
  std::optional<std::string> apply(bool enabled) const;

  Platform platform_;
  const Paths& paths_;
  const SettingsStore& settings_;
  const base::Logger& log_;
};

}  // namespace qev::storage
