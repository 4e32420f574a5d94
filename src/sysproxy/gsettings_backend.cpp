#include "sysproxy/gsettings_backend.h"

#include <unistd.h>

#include <cstdlib>
#include <system_error>

#include "base/constants.h"
#include "base/strings.h"
#include "process/process_runner.h"

namespace qev::sysproxy {
namespace {

constexpr std::string_view kProxySchema = "org.gnome.system.proxy";

// A GVariant string literal; gsettings parses values as GVariant text.
std::string quoted(std::string_view text) {
  return "'" + std::string(text) + "'";
}

std::vector<std::string> setCommand(std::string schema, std::string key, std::string value) {
  return {"set", std::move(schema), std::move(key), std::move(value)};
}

}  // namespace

std::optional<std::filesystem::path> findExecutable(std::string_view name,
                                                    std::string_view searchPath) {
  if (name.empty()) return std::nullopt;
  std::size_t start = 0;
  while (start <= searchPath.size()) {
    std::size_t end = searchPath.find(':', start);
    if (end == std::string_view::npos) end = searchPath.size();
    const std::string_view folder = searchPath.substr(start, end - start);
    const std::filesystem::path candidate =
        std::filesystem::path(folder.empty() ? "." : std::string(folder)) / std::string(name);
    std::error_code ec;
    if (std::filesystem::is_regular_file(candidate, ec) && ::access(candidate.c_str(), X_OK) == 0) {
      return std::filesystem::absolute(candidate, ec);
    }
    start = end + 1;
  }
  return std::nullopt;
}

std::vector<std::vector<std::string>> gsettingsEnableCommands() {
  const std::string schema(kProxySchema);
  const std::string host = quoted(kProxyHost);
  const std::string http = std::to_string(kHttpProxyPort);
  const std::string socks = std::to_string(kSocksProxyPort);
  return {
      setCommand(schema + ".http", "host", host),   setCommand(schema + ".http", "port", http),
      setCommand(schema + ".https", "host", host),  setCommand(schema + ".https", "port", http),
      setCommand(schema + ".socks", "host", host),  setCommand(schema + ".socks", "port", socks),
      setCommand(schema, "mode", quoted("manual")),
  };
}

std::vector<std::string> gsettingsDisableCommand() {
  return setCommand(std::string(kProxySchema), "mode", quoted("none"));
}

GSettingsBackend::GSettingsBackend(const base::Logger& log, std::optional<std::string> searchPath)
    : log_(log), searchPath_(std::move(searchPath)) {}

std::optional<std::filesystem::path> GSettingsBackend::locate() const {
  if (searchPath_) return findExecutable("gsettings", *searchPath_);
  const char* path = std::getenv("PATH");
  return findExecutable("gsettings", path != nullptr ? path : "");
}

void GSettingsBackend::enableSystemProxy() {
  const auto gsettings = locate();
  if (!gsettings) {
    log_.message("native.gsettings.missing");
    return;
  }
  bool ok = true;
  for (const auto& command : gsettingsEnableCommands()) {
    ok = process::runProcess(gsettings->string(), command) && ok;
  }
  log_.message("native.gsettings.enable: ok=" + base::boolText(ok));
}

void GSettingsBackend::disableSystemProxy() {
  const auto gsettings = locate();
  if (!gsettings) {
    log_.message("native.gsettings.missing");
    return;
  }
  const bool ok = process::runProcess(gsettings->string(), gsettingsDisableCommand());
  log_.message("native.gsettings.disable: ok=" + base::boolText(ok));
}

bool GSettingsBackend::pointsAtCore() {
  const auto gsettings = locate();
  if (!gsettings) return false;
  const auto value = [&](const std::string& schema, const char* key) {
    const auto reply = process::runProcessOutput(gsettings->string(), {"get", schema, key});
    return reply.ok ? std::string(base::trimWhitespace(reply.output)) : std::string();
  };
  const std::string schema(kProxySchema);
  return value(schema, "mode") == quoted("manual") &&
         value(schema + ".http", "host") == quoted(kProxyHost) &&
         value(schema + ".http", "port") == std::to_string(kHttpProxyPort);
}

}  // namespace qev::sysproxy
