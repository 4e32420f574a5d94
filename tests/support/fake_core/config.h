#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core_log.h"

namespace fake_core {

enum class Mode { kRule, kGlobal, kDirect };

// "rule", "global" or "direct" in any case; none for anything else.
std::optional<Mode> modeFromName(std::string_view name);
std::string modeName(Mode mode);

struct ProxyNode {
  std::string name;
  std::string type;  // as the controller shows it: "Shadowsocks", "Vless", ...
  bool udp = false;
  bool xudp = false;
  bool tfo = false;
};

struct ProxyGroup {
  std::string name;
  std::string type;  // "Selector", "URLTest", "Fallback", "LoadBalance" or "Relay"
  std::vector<std::string> members;
  std::string testUrl;  // URLTest and Fallback only
  bool disableUdp = false;
};

struct TunSettings {
  bool enable = false;
  std::string device;
  std::string stack = "gVisor";  // as the controller shows it: "gVisor", "System", "Mixed"
  std::vector<std::string> dnsHijack;
  bool autoRoute = false;
  bool autoDetectInterface = false;
};

// What the test core takes from a configuration file.
struct CoreConfig {
  int port = 0;
  int socksPort = 0;
  int mixedPort = 0;
  bool allowLan = false;
  std::string bindAddress = "*";
  std::string externalController;
  std::string secret;
  // external-controller-cors
  std::vector<std::string> corsOrigins{"*"};
  bool corsPrivateNetwork = true;
  // Inbounds of `listeners` and `tunnels`: listen host and port.
  std::vector<std::pair<std::string, int>> extraInbounds;
  Mode mode = Mode::kRule;
  LogLevel logLevel = LogLevel::kInfo;
  bool ipv6 = true;
  bool geoAutoUpdate = false;
  TunSettings tun;
  std::vector<ProxyNode> proxies;  // file order
  std::vector<ProxyGroup> groups;  // file order
  std::vector<std::string> rules;
};

struct LoadResult {
  std::optional<CoreConfig> config;
  std::string error;  // the load error's text when there is no configuration
};

// Parses and validates a configuration as the core does at load: YAML syntax, duplicate keys,
// value types, mode, proxies, groups (members must exist, no loops), rules (targets must
// exist; GEOIP/GEOSITE need their database in `homeDir`, as nothing can be downloaded) and the
// DNS name servers.
LoadResult parseCoreConfig(const std::string& text, const std::filesystem::path& homeDir);

// Reads `path` first: a missing file or an empty one is a load error.
LoadResult loadCoreConfigFile(const std::filesystem::path& path,
                              const std::filesystem::path& homeDir);

}  // namespace fake_core
