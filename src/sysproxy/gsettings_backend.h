#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/logger.h"
#include "sysproxy/system_proxy_backend.h"

namespace qev::sysproxy {

// The first executable regular file called `name` in the colon-separated `searchPath`; empty
// entries stand for the current folder, as in the shell.
std::optional<std::filesystem::path> findExecutable(std::string_view name,
                                                    std::string_view searchPath);

// The gsettings argument lists that point the desktop's proxy at the core, mode last, so the
// desktop never sees "manual" with stale endpoints.
std::vector<std::vector<std::string>> gsettingsEnableCommands();
std::vector<std::string> gsettingsDisableCommand();

// Linux: the desktop proxy settings through `gsettings`, looked up on PATH at every switch.
class GSettingsBackend : public SystemProxyBackend {
 public:
  // `searchPath` replaces the PATH variable, for callers that must not depend on it.
  explicit GSettingsBackend(const base::Logger& log,
                            std::optional<std::string> searchPath = std::nullopt);

  void enableSystemProxy() override;
  void disableSystemProxy() override;
  // Mode 'manual' with the HTTP proxy at the core's host and port.
  bool pointsAtCore() override;

 private:
  std::optional<std::filesystem::path> locate() const;

  const base::Logger& log_;
  std::optional<std::string> searchPath_;
};

}  // namespace qev::sysproxy
