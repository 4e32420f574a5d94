#include "sysproxy/network_services_backend.h"

#include "base/constants.h"
#include "base/fs.h"
#include "base/strings.h"
#include "base/utf8.h"
#include "process/process_runner.h"

namespace qev::sysproxy {
namespace {

constexpr std::size_t kErrorPreviewLength = 180;

std::string endpoint(int port) {
  return std::string(kProxyHost) + ":" + std::to_string(port);
}

}  // namespace

std::vector<std::string> parseNetworkServices(std::string_view listing) {
  std::vector<std::string> services;
  for (const std::string_view piece : base::splitLines(listing)) {
    const std::string_view line = base::trimWhitespace(piece);
    if (line.empty() || line.starts_with("An asterisk") || line.starts_with("*")) continue;
    services.emplace_back(line);
  }
  return services;
}

std::vector<CommandLine> networksetupCommands(const std::string& service, bool enabled) {
  const std::string host(kProxyHost);
  const std::string http = std::to_string(kHttpProxyPort);
  const std::string socks = std::to_string(kSocksProxyPort);
  if (enabled) {
    return {
        {"-setwebproxy", service, host, http},
        {"-setwebproxystate", service, "on"},
        {"-setsecurewebproxy", service, host, http},
        {"-setsecurewebproxystate", service, "on"},
        {"-setsocksfirewallproxy", service, host, socks},
        {"-setsocksfirewallproxystate", service, "on"},
    };
  }
  return {
      {"-setwebproxystate", service, "off"},
      {"-setsecurewebproxystate", service, "off"},
      {"-setsocksfirewallproxystate", service, "off"},
  };
}

bool webProxyPointsAtCore(std::string_view getWebProxyOutput) {
  bool enabled = false;
  bool ourHost = false;
  bool ourPort = false;
  for (const std::string_view piece : base::splitLines(getWebProxyOutput)) {
    const std::string_view line = base::trimWhitespace(piece);
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    const std::string_view key = base::trimWhitespace(line.substr(0, colon));
    const std::string_view value = base::trimWhitespace(line.substr(colon + 1));
    if (key == "Enabled") enabled = value == "Yes";
    if (key == "Server") ourHost = value == kProxyHost;
    if (key == "Port") ourPort = value == std::to_string(kHttpProxyPort);
  }
  return enabled && ourHost && ourPort;
}

NetworkServicesBackend::NetworkServicesBackend(const base::Logger& log,
                                               std::filesystem::path helper,
                                               std::filesystem::path networksetup)
    : log_(log), helper_(std::move(helper)), networksetup_(std::move(networksetup)) {}

bool NetworkServicesBackend::helperExists() const {
  return base::itemExists(helper_);
}

bool NetworkServicesBackend::runHelper(const CommandLine& arguments) const {
  return process::runProcess(helper_.string(), arguments);
}

void NetworkServicesBackend::enableSystemProxy() {
  if (!helperExists()) {
    log_.message("native.sysproxy.missing");
  } else {
    // The helper and networksetup overlap on purpose: networksetup then sets each service
    // explicitly, whatever the helper did.
    const bool stop = runHelper({"-stop"});
    const bool http = runHelper({"-http", endpoint(kHttpProxyPort)});
    const bool https = runHelper({"-https", endpoint(kHttpProxyPort)});
    const bool socks = runHelper({"-socks", endpoint(kSocksProxyPort)});
    log_.message("native.sysproxy.enable: stop=" + base::boolText(stop) +
                 " http=" + base::boolText(http) + " https=" + base::boolText(https) +
                 " socks=" + base::boolText(socks));
  }
  setSystemProxyWithNetworksetup(true);
}

void NetworkServicesBackend::disableSystemProxy() {
  if (helperExists()) {
    log_.message("native.sysproxy.disable: stop=" + base::boolText(runHelper({"-stop"})));
  }
  setSystemProxyWithNetworksetup(false);
}

bool NetworkServicesBackend::pointsAtCore() {
  for (const std::string& service : activeNetworkServices()) {
    const process::ProcessOutput proxy =
        process::runProcessOutput(networksetup_.string(), {"-getwebproxy", service});
    if (proxy.ok && webProxyPointsAtCore(proxy.output)) return true;
  }
  return false;
}

std::vector<std::string> NetworkServicesBackend::activeNetworkServices() {
  const process::ProcessOutput listing =
      process::runProcessOutput(networksetup_.string(), {"-listallnetworkservices"});
  if (!listing.ok) {
    const std::string reason =
        listing.output.empty() ? networksetup_.string() + " failed" : listing.output;
    log_.message("native.networksetup.services.error: " +
                 base::truncateGraphemes(reason, kErrorPreviewLength));
    return {};
  }
  return parseNetworkServices(listing.output);
}

void NetworkServicesBackend::setSystemProxyWithNetworksetup(bool enabled) {
  const std::vector<std::string> services = activeNetworkServices();
  if (services.empty()) {
    log_.message("native.networksetup.noServices");
    return;
  }
  const std::string action = enabled ? "enable" : "disable";
  for (const std::string& service : services) {
    bool ok = true;
    for (const CommandLine& command : networksetupCommands(service, enabled)) {
      ok = process::runProcess(networksetup_.string(), command) && ok;
    }
    log_.message("native.networksetup." + action + ": " + service + "=" + base::boolText(ok));
  }
}

}  // namespace qev::sysproxy
