#include "core/runtime_config.h"

#include <system_error>

#include "base/fs.h"
#include "base/utf8.h"
#include "config/runtime_config_text.h"
#include "config/subscription_check.h"

namespace qev::core {
namespace {

BridgeError fileError(const std::error_code& ec, const std::filesystem::path& path) {
  return BridgeError::system(base::describe(ec, path), ec.value());
}

BridgeError unreadable(const std::filesystem::path& path) {
  return fileError(std::make_error_code(std::errc::io_error), path);
}

}  // namespace

RuntimeConfig::RuntimeConfig(const storage::Paths& paths, const storage::ProtectedFiles& files,
                             const storage::SettingsStore& settings,
                             const controller::ControllerClient& controller,
                             const base::Logger& log)
    : paths_(paths), files_(files), settings_(settings), controller_(controller), log_(log) {}

bool RuntimeConfig::hasRawSubscriptionConfig() const {
  return base::itemExists(paths_.protectedRawConfig) || base::itemExists(paths_.tmpYaml) ||
         base::itemExists(paths_.legacyTmpYaml);
}

bool RuntimeConfig::hasRunnableConfig() const {
  return base::itemExists(paths_.protectedConfig) || base::itemExists(paths_.configYaml) ||
         base::itemExists(paths_.legacyConfigYaml);
}

Result<std::string> RuntimeConfig::readRawSubscriptionConfigText() const {
  if (base::itemExists(paths_.protectedRawConfig)) {
    auto data = files_.readProtectedData(paths_.protectedRawConfig);
    if (!data) return std::string();  // unreadable: no subscription at all
    // Bytes that are not text (a damaged disk, another program's file) never reach the core.
    if (!base::isValidUtf8(*data)) return config::invalidSubscriptionError();
    return std::move(*data);
  }
  const auto& plain = base::itemExists(paths_.tmpYaml) ? paths_.tmpYaml : paths_.legacyTmpYaml;
  auto text = base::readFile(plain);
  if (!text) return unreadable(plain);
  if (!base::isValidUtf8(*text)) return config::invalidSubscriptionError();
  return std::move(*text);
}

std::optional<BridgeError> RuntimeConfig::normalizeTmpYaml(bool tun) const {
  if (!hasRawSubscriptionConfig()) return std::nullopt;
  auto raw = readRawSubscriptionConfigText();
  if (!raw) return raw.error();
  return writeBoth(config::buildRuntimeConfigText(raw.value(), settings_.readModeSetting(), tun));
}

config::ConfigOutline RuntimeConfig::outline() const {
  std::lock_guard lock(outlineMutex_);
  if (!outline_) {
    const auto data = base::itemExists(paths_.protectedConfig)
                          ? files_.readProtectedData(paths_.protectedConfig)
                          : std::nullopt;
    outline_ = data ? config::outlineOf(*data) : config::ConfigOutline{};
  }
  return *outline_;
}

std::optional<BridgeError> RuntimeConfig::writeBoth(const std::string& text) const {
  {
    std::lock_guard lock(outlineMutex_);
    outline_ = config::outlineOf(text);
  }
  if (auto ec = files_.writeProtectedString(text, paths_.protectedConfig)) {
    return fileError(ec, paths_.protectedConfig);
  }
  if (auto ec = writeForCore(text)) return fileError(ec, paths_.configYaml);
  return std::nullopt;
}

std::error_code RuntimeConfig::writeForCore(std::string_view text) const {
  std::string forCore(text);
  if (!forCore.empty() && forCore.back() != '\n') forCore.push_back('\n');
  const std::string secret = controller_.secret();
  if (!secret.empty()) forCore += config::controllerAccessSettings(secret);
  return files_.writeRuntimeConfigData(forCore);
}

bool RuntimeConfig::prepareRuntimeConfigFile() const {
  std::optional<BridgeError> failure;
  if (base::itemExists(paths_.protectedConfig)) {
    const auto data = files_.readProtectedData(paths_.protectedConfig);
    if (!data) {
      failure = unreadable(paths_.protectedConfig);
    } else if (auto ec = writeForCore(*data)) {
      failure = fileError(ec, paths_.configYaml);
    }
  } else if (base::itemExists(paths_.configYaml)) {
    // A plaintext copy left without its protected original: protected now, and rewritten with
    // this core's access settings.
    const auto text = base::readFile(paths_.configYaml);
    failure = text ? writeBoth(*text) : unreadable(paths_.configYaml);
  } else if (base::itemExists(paths_.legacyConfigYaml)) {
    const auto text = base::readFile(paths_.legacyConfigYaml);
    failure = text ? writeBoth(*text) : unreadable(paths_.legacyConfigYaml);
    if (!failure) {
      std::error_code ignored;
      std::filesystem::remove(paths_.legacyConfigYaml, ignored);
    }
  } else {
    return false;
  }
  if (failure) {
    log_.message("native.config.runtime.error: " + failure->description);
    return false;
  }
  return true;
}

}  // namespace qev::core
