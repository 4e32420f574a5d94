#include "storage/settings_store.h"

#include <optional>
#include <string_view>

#include "base/constants.h"
#include "base/fs.h"
#include "config/routing_mode.h"

namespace qev::storage {
namespace {

constexpr std::string_view kDefaultMode = "rule";

// The stored file as a JSON object, or nothing when it is missing, unreadable or not an object.
std::optional<Json> readStoredObject(const fs::path& file) {
  const auto bytes = base::readFile(file);
  if (!bytes) return std::nullopt;
  Json parsed = base::parseJson(*bytes);
  if (parsed.is_discarded() || !parsed.is_object()) return std::nullopt;
  return parsed;
}

// The canonical mode of a stored value; "rule" when it is not a string or not a known label.
std::string normalizedStoredMode(const Json* value) {
  if (value == nullptr || !value->is_string()) return std::string(kDefaultMode);
  return config::normalizedMihomoMode(value->get_ref<const std::string&>())
      .value_or(std::string(kDefaultMode));
}

// Adds every default key the object lacks; true when one was added.
bool addMissingDefaults(Json& object, const Json& defaults) {
  bool added = false;
  for (const auto& [key, value] : defaults.items()) {
    if (!object.contains(key)) {
      object[key] = value;
      added = true;
    }
  }
  return added;
}

const Json* find(const Json& object, std::string_view key) {
  const auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

}  // namespace

std::error_code writeJSON(const Json& object, const fs::path& file) {
  std::string text;
  try {
    // Objects keep their keys sorted, so this is indented with keys in sorted order.
    text = object.dump(2);
  } catch (const Json::exception&) {
    // A string that is not UTF-8 cannot be serialised.
    return std::make_error_code(std::errc::illegal_byte_sequence);
  }
  return base::writeFileAtomic(file, text);
}

SettingsStore::SettingsStore(const Paths& paths, const SelectionMemory& selection,
                             const base::Logger& log)
    : paths_(paths), selection_(selection), log_(log) {}

Json SettingsStore::defaultSettings() const {
  const auto choice = selection_.get();
  return Json{
      {"tun", false},
      {"apiBase", ""},
      {"mode", kDefaultMode},
      {"autoLaunch", isAutoLaunchEnabled()},
      {"proxyEnabled", false},
      {"lastSelectedProxyGroup", choice.group.empty() ? std::string(kSelectorGroup) : choice.group},
      {"lastSelectedProxyName", choice.name},
  };
}

void SettingsStore::ensureLocalSettings() const {
  std::lock_guard lock(writeMutex_);
  const Json defaults = defaultSettings();
  auto stored = readStoredObject(paths_.settings);
  if (!stored) {
    (void)writeJSON(defaults, paths_.settings);  // a failed repair is retried at the next start
    return;
  }
  Json& object = *stored;
  bool changed = addMissingDefaults(object, defaults);

  const Json* storedMode = find(object, "mode");
  const std::string mode = normalizedStoredMode(storedMode);
  if (storedMode == nullptr || !storedMode->is_string() || storedMode->get<std::string>() != mode) {
    object["mode"] = mode;
    changed = true;
  }

  const bool autoLaunch = isAutoLaunchEnabled();
  const Json* storedAutoLaunch = find(object, "autoLaunch");
  if (storedAutoLaunch == nullptr || !storedAutoLaunch->is_boolean() ||
      storedAutoLaunch->get<bool>() != autoLaunch) {
    object["autoLaunch"] = autoLaunch;
    changed = true;
  }

  if (changed) (void)writeJSON(object, paths_.settings);
}

Json SettingsStore::readSettings() const {
  const Json defaults = defaultSettings();
  auto stored = readStoredObject(paths_.settings);
  if (!stored) return defaults;
  Json& object = *stored;
  addMissingDefaults(object, defaults);
  object["mode"] = normalizedStoredMode(find(object, "mode"));
  // The file's own value is never trusted: the launch file's existence is the state.
  object["autoLaunch"] = defaults["autoLaunch"];
  return object;
}

std::error_code SettingsStore::update(const std::function<void(Json&)>& change) const {
  std::lock_guard lock(writeMutex_);
  Json object = readSettings();
  change(object);
  return writeJSON(object, paths_.settings);
}

void SettingsStore::persistProxyEnabled(bool enabled) const {
  if (const auto ec = update([enabled](Json& s) { s["proxyEnabled"] = enabled; })) {
    log_.message("native.proxyEnabled.save.error: " + base::describe(ec, paths_.settings));
  }
}

std::string SettingsStore::readModeSetting() const {
  const Json settings = readSettings();
  // readSettings already normalised the value; normalising again keeps this safe on its own.
  return normalizedStoredMode(find(settings, "mode"));
}

bool SettingsStore::readTunSetting() const {
  const Json settings = readSettings();
  const Json* tun = find(settings, "tun");
  return tun != nullptr && tun->is_boolean() && tun->get<bool>();
}

bool SettingsStore::isAutoLaunchEnabled() const {
  return base::itemExists(paths_.launchAgent);
}

}  // namespace qev::storage
