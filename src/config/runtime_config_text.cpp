#include "config/runtime_config_text.h"

#include <array>

#include "base/constants.h"
#include "base/strings.h"
#include "config/line_stages.h"

namespace qev::config {
namespace {

// Sections the application replaces, or that would let other programs and hosts steer the
// core or use it as an open proxy.
constexpr std::array<std::string_view, 19> kReplacedSections = {
    "tun",
    "dns",
    "listeners",
    "tunnels",
    "external-controller-tls",
    "external-controller-unix",
    "external-controller-pipe",
    "external-controller-cors",
    "external-ui",
    "external-ui-name",
    "external-ui-url",
    "external-doh-server",
    "secret",
    "authentication",
    "skip-auth-prefixes",
    "lan-allowed-ips",
    "lan-disallowed-ips",
    "redir-port",
    "tproxy-port",
};

// Settings the application owns, as top-level keys of the subscription. Indented keys of the
// same name belong to proxies and other maps and stay.
constexpr std::array<std::string_view, 9> kOwnedSettingPrefixes = {
    "mixed-port:",          "port:",      "socks-port:",
    "external-controller:", "allow-lan:", "bind-address:",
    "geo-auto-update:",     "mode:",      "ipv6:",
};

bool isOwnedSetting(std::string_view line) {
  if (!detail::isTopLevelLine(line)) return false;
  for (std::string_view prefix : kOwnedSettingPrefixes) {
    if (line.starts_with(prefix)) return true;
  }
  return false;
}

void appendGeneratedSettings(std::string& out, std::string_view mode, bool tun) {
  out.append("\nport: ").append(std::to_string(kHttpProxyPort));
  out.append("\nsocks-port: ").append(std::to_string(kSocksProxyPort));
  out.append("\nexternal-controller: 127.0.0.1:").append(std::to_string(kControllerPort));
  out.append("\nallow-lan: false\ngeo-auto-update: false\nipv6: false\nmode: ");
  out.append(mode).push_back('\n');
  if (tun) out.append(kTunDnsBlock);
}

}  // namespace

std::string controllerAccessSettings(std::string_view secret) {
  std::string out = "secret: ";
  out.append(secret);
  out.append("\nexternal-controller-cors:\n  allow-origins:\n    - ");
  out.append(kAppOrigin);
  out.append("\n  allow-private-network: false\n");
  return out;
}

std::string buildRuntimeConfigText(std::string_view subscription, std::string_view mode, bool tun) {
  // A first pass finds the hidden names that rules and groups still use. The separate steps
  // (drop the replaced sections, drop owned settings, sanitize, place the rule) each map a line
  // to at most one line, so they then run fused in a second pass.
  detail::NamedChoiceCollector collector;
  detail::TopLevelBlockFilter scanned(kReplacedSections);
  base::forEachLine(subscription, [&](std::string_view line) {
    if (scanned.keep(line)) collector.add(line);
  });
  const detail::NameSet named = collector.take();

  std::string out;
  out.reserve(subscription.size() + subscription.size() / 16 + 1024);
  detail::TopLevelBlockFilter sections(kReplacedSections);
  detail::FlowEntrySanitizer sanitizer(named);
  detail::RulePlacer rules(kQuicRejectRule, out);
  base::forEachLine(subscription, [&](std::string_view line) {
    if (!sections.keep(line) || isOwnedSetting(line)) return;
    if (const auto kept = sanitizer.process(line)) rules.add(*kept);
  });
  rules.finish();
  appendGeneratedSettings(out, mode, tun);
  return out;
}

}  // namespace qev::config
