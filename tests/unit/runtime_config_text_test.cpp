#include "subscription/runtime_config_text.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>
#include <vector>

#include "base/strings.h"
#include "subscription/yaml_lines.h"

namespace qev::subscription {
namespace {

std::string generatedTail(std::string_view mode) {
  return "\nport: 33210\nsocks-port: 33211\nexternal-controller: 127.0.0.1:33212\n"
         "allow-lan: false\ngeo-auto-update: false\nipv6: false\nmode: " +
         std::string(mode) + "\n";
}

constexpr std::string_view kSubscription =
    "mixed-port: 7890\n"
    "port: 7891\n"
    "allow-lan: true\n"
    "mode: Rule\n"
    "log-level: info\n"
    "tun:\n"
    "  enable: true\n"
    "  stack: gvisor\n"
    "dns:\n"
    "  enable: true\n"
    "  nameserver:\n"
    "    - 8.8.8.8\n"
    "proxies:\n"
    "  - {name: 剩余流量：100 GB, type: ss, server: a, port: 1}\n"
    "  - {name: \"🇭🇰 香港 01\", type: vless, server: b, port: 443, tls: true, reality-opts: "
    "{public-key: k}}\n"
    "  - name: block\n"
    "    type: ss\n"
    "    port: 8388\n"
    "proxy-groups:\n"
    "  - {name: QEV, type: select, proxies: [自动选择,\"🇭🇰 香港 01\",DIRECT]}\n"
    "  - {name: 自动选择, type: url-test, proxies: [\"🇭🇰 香港 01\"]}\n"
    "rules:\n"
    "  - DOMAIN,example.com,DIRECT\n"
    "  - AND,((NETWORK,UDP),(DST-PORT,443)),REJECT\n"
    "  - MATCH,QEV\n";

constexpr std::string_view kExpectedBody =
    "log-level: info\n"
    "proxies:\n"
    "  - {name: \"🇭🇰 香港 01\", type: vless, server: b, port: 443, tls: true, reality-opts: "
    "{public-key: k}, client-fingerprint: chrome }\n"
    "  - name: block\n"
    "    type: ss\n"
    "proxy-groups:\n"
    "  - {name: QEV, type: select, proxies: [\"🇭🇰 香港 01\"]}\n"
    "rules:\n"
    "  - AND,((NETWORK,UDP),(DST-PORT,443)),REJECT\n"
    "  - DOMAIN,example.com,DIRECT\n"
    "  - MATCH,QEV\n";

TEST(RuntimeConfigTextTest, RewritesATypicalSubscription) {
  EXPECT_EQ(buildRuntimeConfigText(kSubscription, "global", false),
            std::string(kExpectedBody) + generatedTail("global"));
  EXPECT_EQ(buildRuntimeConfigText(kSubscription, "rule", true),
            std::string(kExpectedBody) + generatedTail("rule") + std::string(kTunDnsBlock));
}

TEST(RuntimeConfigTextTest, TunBlockIsExact) {
  EXPECT_EQ(kTunDnsBlock.size(), 237u);
  EXPECT_EQ(kTunDnsBlock,
            "tun:\n  enable: true\n  stack: system\n  auto-route: true\n"
            "  auto-detect-interface: true\n  dns-hijack:\n    - any:53\n"
            "dns:\n  enable: true\n  enhanced-mode: fake-ip\n  fake-ip-range: 198.18.0.1/16\n"
            "  nameserver:\n    - 223.5.5.5\n    - 119.29.29.29\n");
}

TEST(RuntimeConfigTextTest, SubscriptionTunSectionNeverSurvives) {
  const std::string out =
      buildRuntimeConfigText("tun:\n  stack: gvisor\nproxies:\n", "rule", false);
  for (std::string_view line : base::splitLines(out)) {
    EXPECT_FALSE(line.starts_with("tun:") || line.starts_with("dns:")) << line;
    EXPECT_EQ(line.find("gvisor"), std::string_view::npos);
  }
}

TEST(RuntimeConfigTextTest, TailIsTheSameForEverySubscription) {
  for (std::string_view subscription :
       {"", "proxies:\n", "a: 1", "rules:", "rules:\n  - MATCH,DIRECT\n", "\r\n\r\n"}) {
    const std::string out = buildRuntimeConfigText(subscription, "direct", false);
    EXPECT_TRUE(out.ends_with(generatedTail("direct"))) << out;
    EXPECT_TRUE(buildRuntimeConfigText(subscription, "direct", true)
                    .ends_with(generatedTail("direct") + std::string(kTunDnsBlock)));
  }
  EXPECT_EQ(buildRuntimeConfigText("", "rule", false),
            "\nrules:\n  - AND,((NETWORK,UDP),(DST-PORT,443)),REJECT\n" + generatedTail("rule"));
}

struct SettingLine {
  std::string line;
  bool dropped;
  friend void PrintTo(const SettingLine& c, std::ostream* os) { *os << c.line; }
};

class OwnedSettingTest : public ::testing::TestWithParam<SettingLine> {};

TEST_P(OwnedSettingTest, OwnedKeysDropAtAnyDepth) {
  const std::string out =
      buildRuntimeConfigText("a:\n" + GetParam().line + "\nb: 1\n", "rule", false);
  const std::string body = out.substr(0, out.find("\nrules:"));
  EXPECT_EQ(body, GetParam().dropped ? "a:\nb: 1" : "a:\n" + GetParam().line + "\nb: 1");
}

INSTANTIATE_TEST_SUITE_P(
    Table, OwnedSettingTest,
    ::testing::Values(SettingLine{"mixed-port: 7890", true}, SettingLine{"  port: 443", true},
                      SettingLine{"\tsocks-port: 7891", true},
                      SettingLine{"external-controller: 0.0.0.0:9090", true},
                      SettingLine{"allow-lan: true", true}, SettingLine{"bind-address: '*'", true},
                      SettingLine{"geo-auto-update: true", true},
                      SettingLine{"    mode: global", true}, SettingLine{"ipv6: true", true},
                      SettingLine{"port:", true}, SettingLine{"ports: 1", false},
                      SettingLine{"modes: x", false}, SettingLine{"mode : rule", false},
                      SettingLine{"Mode: rule", false}, SettingLine{"# port: 1", false},
                      SettingLine{"external-controller-tls: x", false},
                      SettingLine{"ipv6-timeout: 1", false},
                      SettingLine{"  - {name: a, port: 1}", false}));

// The one-pass builder against the separate steps run one after the other.
std::string builtStepByStep(std::string_view subscription, std::string_view mode, bool tun) {
  constexpr std::array<std::string_view, 2> sections = {"tun", "dns"};
  constexpr std::array<std::string_view, 9> owned = {
      "mixed-port:",          "port:",      "socks-port:",
      "external-controller:", "allow-lan:", "bind-address:",
      "geo-auto-update:",     "mode:",      "ipv6:"};
  const std::string withoutSections = removeTopLevelYamlBlocks(subscription, sections);
  std::vector<std::string> kept;
  for (std::string_view line : base::splitLines(withoutSections)) {
    const std::string_view trimmed = base::trimBlanks(line);
    bool drop = false;
    for (std::string_view prefix : owned) drop = drop || trimmed.starts_with(prefix);
    if (!drop) kept.emplace_back(line);
  }
  std::string text = ensureRule(kQuicRejectRule, sanitizeSubscriptionYaml(base::join(kept, "\n")));
  text += generatedTail(mode);
  if (tun) text += kTunDnsBlock;
  return text;
}

TEST(RuntimeConfigTextTest, OnePassMatchesTheStepsOnRandomSubscriptions) {
  const std::array<std::string_view, 30> lines = {
      "tun:",
      "  stack: gvisor",
      "dns:",
      "  enable: true",
      "- 1.1.1.1",
      "proxies:",
      "proxy-groups:",
      "rules:",
      "rules: []",
      "  rules:",
      "  - AND,((NETWORK,UDP),(DST-PORT,443)),REJECT",
      "- AND,((NETWORK,UDP),(DST-PORT,443)),REJECT",
      "  - MATCH,DIRECT",
      "\t- DOMAIN,a.example,QEV",
      "  - {name: Auto, type: ss}",
      "  - {name: \"🇭🇰 香港\", type: anytls}",
      "  - {name: r, type: vless, tls: true, reality-opts: {a: b}}",
      "- {name: 剩余流量：1 GB, type: ss}",
      "  - {name: G, proxies: [Auto, HK,'a, b']}",
      "  - {name: 自动选择, proxies: [HK]}",
      "  - name: Auto",
      "mode: rule",
      "    port: 1",
      "mixed-port: 7890",
      "# comment",
      "",
      "   ",
      "\u3000",
      "log-level: info",
      "tun: {enable: true}"};
  const std::array<std::string_view, 5> endings = {"\n", "\n", "\r\n", "\r", "\u2028"};
  std::mt19937 random(7);
  for (int round = 0; round < 3000; ++round) {
    std::string subscription;
    const int count = static_cast<int>(random() % 12);
    for (int i = 0; i < count; ++i) {
      subscription += lines[random() % lines.size()];
      if (i + 1 < count || random() % 2) subscription += endings[random() % endings.size()];
    }
    const bool tun = random() % 2 == 0;
    ASSERT_EQ(buildRuntimeConfigText(subscription, "rule", tun),
              builtStepByStep(subscription, "rule", tun))
        << "subscription: [" << subscription << "]";
  }
}

}  // namespace
}  // namespace qev::subscription
