#include "config/runtime_config_text.h"

#include "base/constants.h"
#include "base/strings.h"
#include "config/line_stages.h"

namespace qev::config {
namespace {

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
