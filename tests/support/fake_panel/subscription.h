#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace fake_panel {

enum class Generation { kV1, kV2 };

// What a subscription is made from.
struct SubscriptionSource {
  Generation generation = Generation::kV2;
  std::string siteName;   // names the main select group
  std::string panelHost;  // gets a DIRECT rule first, as panels add for their own host
  bool infoNodes = true;  // the "剩余流量：..." pseudo-nodes at the front
  std::string remaining;  // e.g. "97.66 GB"
  std::optional<int> resetDays;
  std::string expiry;     // "2026-12-31" or "长期有效"
  bool geoRules = false;  // GEOSITE/GEOIP rules (the core then needs its databases)
};

// The configuration for the current core ("meta" in the flag or user agent): four-space
// indentation, one flow mapping per proxy and group, quoted where the panel quotes.
std::string metaSubscription(const SubscriptionSource& source);
// The older format for a plain "clash" client: only the node types it knows.
std::string classicSubscription(const SubscriptionSource& source);
// Base64 of the share links, one per node, for any other client.
std::string shareLinkSubscription(const SubscriptionSource& source);

// A scalar as the panel's YAML dumper writes it inline.
std::string yamlScalar(const std::string& text);
// A value in inline (flow) style: "{ k: v, ... }", "[a, b]" or a scalar.
std::string inlineYaml(const nlohmann::ordered_json& value);

}  // namespace fake_panel
