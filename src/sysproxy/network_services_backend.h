#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "base/logger.h"
#include "sysproxy/system_proxy_backend.h"

namespace qev::sysproxy {

using CommandLine = std::vector<std::string>;

// The enabled services of a "-listallnetworkservices" listing, in listed order: lines trimmed,
// empty ones, the explanatory line and disabled services (leading "*") dropped.
std::vector<std::string> parseNetworkServices(std::string_view listing);

// The networksetup argument lists that switch one service's web, secure web and SOCKS proxies
// on (with host and port) or off (states only; host and port stay stored).
std::vector<CommandLine> networksetupCommands(const std::string& service, bool enabled);

// macOS: the optional `sysproxy` helper from the libraries folder, then `networksetup` for every
// enabled network service. Every command runs even when an earlier one failed.
// Whether `networksetup -getwebproxy <service>` output shows the web proxy on and pointing at
// the core's HTTP port.
bool webProxyPointsAtCore(std::string_view getWebProxyOutput);

class NetworkServicesBackend : public SystemProxyBackend {
 public:
  static constexpr const char* kNetworksetup = "/usr/sbin/networksetup";

  NetworkServicesBackend(const base::Logger& log, std::filesystem::path helper,
                         std::filesystem::path networksetup = kNetworksetup);

  void enableSystemProxy() override;
  void disableSystemProxy() override;
  // True when any active service's web proxy points at the core.
  bool pointsAtCore() override;

  void setSystemProxyWithNetworksetup(bool enabled);
  // Empty (and logged) when the listing cannot be obtained.
  std::vector<std::string> activeNetworkServices();

 private:
  bool helperExists() const;
  bool runHelper(const CommandLine& arguments) const;

  const base::Logger& log_;
  std::filesystem::path helper_;
  std::filesystem::path networksetup_;
};

}  // namespace qev::sysproxy
