#pragma once

#include <array>
#include <string>
#include <string_view>

namespace qev::config {

// The rule that keeps QUIC off, so that browsers fall back to TCP through the proxy.
inline constexpr std::string_view kQuicRejectRule = "AND,((NETWORK,UDP),(DST-PORT,443)),REJECT";

// The TUN and DNS settings appended when TUN mode is on.
inline constexpr std::string_view kTunDnsBlock =
    "tun:\n"
    "  enable: true\n"
    "  stack: system\n"
    "  auto-route: true\n"
    "  auto-detect-interface: true\n"
    "  dns-hijack:\n"
    "    - any:53\n"
    "dns:\n"
    "  enable: true\n"
    "  enhanced-mode: fake-ip\n"
    "  fake-ip-range: 198.18.0.1/16\n"
    "  nameserver:\n"
    "    - 223.5.5.5\n"
    "    - 119.29.29.29\n";

// Sections the application replaces, or that would let other programs and hosts steer the
// core or use it as an open proxy.
inline constexpr std::array<std::string_view, 19> kReplacedSections = {
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
inline constexpr std::array<std::string_view, 9> kOwnedSettingPrefixes = {
    "mixed-port:",          "port:",      "socks-port:",
    "external-controller:", "allow-lan:", "bind-address:",
    "geo-auto-update:",     "mode:",      "ipv6:",
};

// The configuration the core runs, made from the downloaded subscription text: the
// subscription's own tun and dns sections, and every section that would open the core to
// other programs or the network (listeners, tunnels, controller and UI settings, secrets,
// LAN access lists, extra proxy ports), and every setting the application owns (ports,
// controller, LAN access, geo updates, mode, IPv6) are dropped at any depth, hidden entries
// are removed, QUIC is rejected first, and the application's settings follow at the end with
// `mode` (a canonical routing mode) and, when `tun` is set, the TUN and DNS block.
// Pure and never fails; one pass over the text.
std::string buildRuntimeConfigText(std::string_view subscription, std::string_view mode, bool tun);

// The controller's access settings appended to the file the core reads: its secret, and CORS
// that grants only the application's own page and no private-network access.
std::string controllerAccessSettings(std::string_view secret);

}  // namespace qev::config
