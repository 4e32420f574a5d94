// The pure configuration-text functions: line transforms, hidden names, routing modes and the
// one-pass runtime configuration.

#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "base/strings.h"
#include "config/hidden_choices.h"
#include "config/routing_mode.h"
#include "config/runtime_config_text.h"
#include "config/yaml_lines.h"

namespace qev::config {
namespace {

struct TextCase {
  std::string input;
  std::string expected;
};

template <class Transform>
void expectTable(const std::vector<TextCase>& table, Transform transform) {
  for (const auto& c : table) EXPECT_EQ(transform(c.input), c.expected) << "input: " << c.input;
}

TEST(FlowMapNameTest, ReadsTheFirstNameValue) {
  const std::vector<std::pair<std::string, std::optional<std::string>>> table = {
      {"- {name: HK 01, type: ss}", "HK 01"},
      {"- {name:HK, type: ss}", "HK"},
      {"- {name: 'a, b', type: ss}", "a, b"},
      {"- {name: a, b, type: ss}", "a"},
      {"- {name: \"🇯🇵 東京 01\", server: x}", "🇯🇵 東京 01"},
      {"- {name: 'it''s', x: 1}", "it"},
      {"- {type: ss, name: 末尾}", "末尾"},
      {"- {name:\u3000x}", "x"},
      {"- {nickname: first, name: second}", "first"},
      {"- {name: 'open, type: ss}", "'open"},
      {"- {name: , type: ss}", ""},
      {"- {name:, alias-name: two}", "two"},
      {"- {name:}", std::nullopt},
      {"- {Name: x}", std::nullopt}};
  for (const auto& [line, expected] : table) {
    const auto name = flowMapName(line);
    EXPECT_EQ(name ? std::optional<std::string>(*name) : std::nullopt, expected) << line;
  }
}

TEST(FlowListTest, UnquotesAndSplitsOutsideQuotes) {
  expectTable({{"  'abc'  ", "abc"},
               {"' a '", " a "},
               {"'abc\"", "'abc\""},
               {"'it''s'", "it''s"},
               {"''x''", "'x'"},
               {"\u3000\"名前\"\u2028", "名前"}},
              [](const std::string& s) { return std::string(unquoteYamlScalar(s)); });
  expectTable({{"A,B, C", "A|B|C"},
               {"'a,b', \"x, y\",z", "'a,b'|\"x, y\"|z"},
               {"a,,b", "a||b"},
               {"a, b, ", "a|b"},
               {"'open, x, y", "'open, x, y"},
               {"", ""}},
              [](const std::string& s) {
                const auto items = splitFlowList(s);
                return base::join(std::vector<std::string>(items.begin(), items.end()), "|");
              });
}

TEST(FilterFlowProxyListTest, DropsHiddenMembers) {
  expectTable(
      {{"  - {name: G, type: select, proxies: [A,Auto,B]}",
        "  - {name: G, type: select, proxies: [A, B]}"},
       {"- {name: G, proxies: [\"x, y\", 'Auto', z]}", "- {name: G, proxies: [\"x, y\", z]}"},
       {"- {name: G, proxies: [ \" Auto \" , HK]}", "- {name: G, proxies: [HK]}"},
       {"- {proxies: [🇭🇰 香港 01, Expires: 2030-01-01, 🇯🇵 日本]}",
        "- {proxies: [🇭🇰 香港 01, 🇯🇵 日本]}"},
       {"- {proxies: [A,,B,]}", "- {proxies: [A, , B]}"},
       {"- {proxies: [A, Auto], use: [x], proxies: [Auto]}",
        "- {proxies: [A], use: [x], proxies: [Auto]}"},
       {"- {name: G, proxies:", "- {name: G, proxies:"},
       {"- {proxies:[A, Auto]}", "- {proxies:[A, Auto]}"},
       {"- {proxies: [A, Auto}", "- {proxies: [A, Auto}"},
       // A built-in outbound the list started with stays in front.
       {"- {name: G, proxies: [DIRECT, HK, Auto]}", "- {name: G, proxies: [DIRECT, HK]}"},
       {"- {name: G, proxies: ['REJECT', HK]}", "- {name: G, proxies: ['REJECT', HK]}"},
       {"- {name: G, proxies: [HK, DIRECT]}", "- {name: G, proxies: [HK]}"},
       // A list left empty falls back to its built-in outbounds, or to DIRECT.
       {"- {name: Ads, proxies: [REJECT, DIRECT]}", "- {name: Ads, proxies: [REJECT]}"},
       {"- {name: G, proxies: [Auto, \"DIRECT\", 自动选择]}", "- {name: G, proxies: [\"DIRECT\"]}"},
       {"- {name: G, proxies: [Auto, 剩余流量：1 GB]}", "- {name: G, proxies: [DIRECT]}"}},
      filterFlowProxyList);
}

TEST(NormalizeFlowProxyLineTest, AddsAFingerprintWhereNeeded) {
  expectTable(
      {{"  - {name: v, type: vless, tls: true, reality-opts: {public-key: k}}",
        "  - {name: v, type: vless, tls: true, reality-opts: {public-key: k}, "
        "client-fingerprint: chrome }"},
       {"- {name: v, type: vless, tls: true}", "- {name: v, type: vless, tls: true}"},
       {"- {type: vless, reality-opts: {a: b}}", "- {type: vless, reality-opts: {a: b}}"},
       {"- {NAME: A, TYPE: AnyTLS}", "- {NAME: A, TYPE: AnyTLS, client-fingerprint: chrome }"},
       {"- {name: a, type: anytls, }", "- {name: a, type: anytls,  client-fingerprint: chrome, }"},
       {"- {type: anytls} # note", "- {type: anytls, client-fingerprint: chrome } # note"},
       {"- {type: anytls, Client-Fingerprint: ios}", "- {type: anytls, Client-Fingerprint: ios}"},
       {"- {type:anytls}", "- {type:anytls}"},
       {"- {type: anytls", "- {type: anytls"}},
      normalizeFlowProxyLine);
}

TEST(RemoveTopLevelBlocksTest, RemovesNamedSections) {
  constexpr std::array<std::string_view, 2> names = {"tun", "dns"};
  expectTable({{"tun:\n  enable: true\ndns:\n  enable: true\nproxies:\n  - {name: a}",
                "proxies:\n  - {name: a}"},
               {"dns:\n- 1.1.1.1\n  x: 1\nmode: rule", "- 1.1.1.1\n  x: 1\nmode: rule"},
               {"tun:\n  x: 1\n# note\n  y: 2", "# note\n  y: 2"},
               {"dns:   \n  a: 1\nb: 2", "b: 2"},
               {"dns:\n\tx: 1\nb: 2", "b: 2"},
               {"tun: {enable: true}\nmode: rule", "mode: rule"},
               {"::dns: x\n  y\nb: 2", "b: 2"},
               {"Dns:\n  a: 1", "Dns:\n  a: 1"},
               {"tunnel:\n  a: 1\ndns-extra: 2", "tunnel:\n  a: 1\ndns-extra: 2"},
               {"a:\n  dns:\n    x: 1", "a:\n  dns:\n    x: 1"},
               {"a: 1\n\ntun:\n  x: 1\n\n  y: 2\nb: 2\n", "a: 1\n\nb: 2\n"},
               {"a: 1\ntun:\n  x: 1\n", "a: 1"},
               {"tun:\r\n  x: 1\r\nmode: rule\r\n", "mode: rule\n\n"},
               {"a: 1\u2028tun:\u0085  x\u2029b: 2", "a: 1\nb: 2"}},
              [&](const std::string& s) { return removeTopLevelYamlBlocks(s, names); });
}

TEST(SanitizeTest, FiltersAndNormalizesFlowEntries) {
  expectTable(
      {{"proxies:\n  - {name: 剩余流量：100 GB, type: ss}\n    - {name: \"🇭🇰 香港\", type: "
        "anytls}\n",
        "proxies:\n    - {name: \"🇭🇰 香港\", type: anytls, client-fingerprint: chrome }\n"},
       {"proxies:\n  - {name: a, type: ss}\nmode: rule\n  - {name: Auto, type: ss}",
        "proxies:\n  - {name: a, type: ss}\nmode: rule"},
       {"proxies:\n- {name: Expires 2030, type: ss}\n- {name: x}", "proxies:\n- {name: x}"},
       {"proxy-groups:\n  - {name: 自动选择, type: url-test, proxies: [a, b]}\n"
        "  - {name: SELECT, type: select, proxies: [Auto,🇭🇰 香港]}",
        "proxy-groups:\n  - {name: SELECT, type: select, proxies: [🇭🇰 香港]}"},
       {"proxy-groups:\n  - {name: g, type: anytls}", "proxy-groups:\n  - {name: g, type: anytls}"},
       {"proxies:\n  - {name: p, proxies: [Auto]}", "proxies:\n  - {name: p, proxies: [Auto]}"},
       {"proxies:\n  - name: Auto\n    type: ss\n", "proxies:\n  - name: Auto\n    type: ss\n"},
       {"a:\n  proxies:\n    - {name: Auto}", "a:\n  proxies:\n    - {name: Auto}"},
       {"proxies :\n  - {name: Auto}", "proxies :\n  - {name: Auto}"},
       {"proxies:\n  - {name: a}\nrule-providers:\n  - {name: Auto}",
        "proxies:\n  - {name: a}\nrule-providers:\n  - {name: Auto}"},
       {"proxies:\r\n  - {name: Auto}\r\n  - {name: a}\r\n", "proxies:\n\n\n  - {name: a}\n\n"},
       // A hidden entry that a rule or a block-style group member still names stays.
       {"proxy-groups:\n  - {name: Auto, type: url-test, proxies: [a, Fallback]}\n"
        "rules:\n  - 'DOMAIN,x.example,Auto,no-resolve'",
        "proxy-groups:\n  - {name: Auto, type: url-test, proxies: [a]}\n"
        "rules:\n  - 'DOMAIN,x.example,Auto,no-resolve'"},
       {"proxies:\n  - {name: \"剩余流量：1 GB\", type: ss}\n  - {name: Auto, type: anytls}\n"
        "proxy-groups:\n  - name: G\n    proxies:\n      - \"剩余流量：1 GB\"\n      - HK\n",
        "proxies:\n  - {name: \"剩余流量：1 GB\", type: ss}\nproxy-groups:\n  - name: G\n"
        "    proxies:\n      - \"剩余流量：1 GB\"\n      - HK\n"},
       {"proxies:\n  - {name: Auto, type: ss}\nrules:\n  - MATCH,\"Auto\"\n",
        "proxies:\n  - {name: Auto, type: ss}\nrules:\n  - MATCH,\"Auto\"\n"},
       {"proxies:\n  - {name: Auto, type: ss}\nproxy-groups:\n  - name: Auto-2\n",
        "proxies:\nproxy-groups:\n  - name: Auto-2\n"}},
      sanitizeSubscriptionYaml);
}

constexpr std::string_view kRule = "AND,((NETWORK,UDP),(DST-PORT,443)),REJECT";

// Writes the rule's text where a test text says R.
std::string withRule(std::string_view text) {
  return base::replaceAll(text, "R", kRule);
}

TEST(EnsureRuleTest, PlacesTheRuleFirstAndOnce) {
  const std::vector<TextCase> table = {
      {"rules:\n  - A\n  - B\n  - R\n  - C", "rules:\n  - R\n  - A\n  - B\n  - C"},
      {"g:\n  - R\n\t- R  \nrules:\n  - X", "g:\nrules:\n  - R\n  - X"},
      {"rules:\n  -  R\n  - R,x", "rules:\n  - R\n  -  R\n  - R,x"},
      {"x: 1\nrules:", "x: 1\nrules:\n    - R"},
      {"rules:\nmode: rule", "rules:\n- R\nmode: rule"},
      {"rules:\n\n  \n\t- A", "rules:\n\n  \n\t- R\n\t- A"},
      {"rules:\n   \n", "rules:\n   - R\n   \n"},
      {"  rules:  \n    - A", "  rules:  \n    - R\n    - A"},
      {"rules:\n  - A\nrules:\n  - B", "rules:\n  - R\n  - A\nrules:\n  - B"},
      {"rules:\r\n  - A\r\n", "rules:\n\n  - R\n  - A\n\n"},
      {"x: 1\n", "x: 1\nrules:\n  - R\n"},
      {"rules: # c\n  - A", "rules: # c\n  - A\nrules:\n  - R\n"},
      {"", "\nrules:\n  - R\n"},
      // Comment lines between the header and the first rule do not set the indentation.
      {"rules:\n# domestic\n#  more\n  - A", "rules:\n# domestic\n#  more\n  - R\n  - A"},
      {"rules:\n  # note\n\n    - A", "rules:\n  # note\n\n    - R\n    - A"}};
  for (const auto& c : table) {
    const std::string once = ensureRule(kRule, withRule(c.input));
    EXPECT_EQ(once, withRule(c.expected)) << c.input;
    // A newly appended list settles only from the second pass on.
    if (!c.expected.ends_with("rules:\n  - R\n")) {
      EXPECT_EQ(ensureRule(kRule, once), once) << "not stable: " << c.input;
    }
  }
}

TEST(HiddenChoiceTest, DecidesByNameAlone) {
  const std::vector<std::pair<std::string, bool>> table = {{"  Auto\t", true},
                                                           {"\u3000Auto\u00a0\n", true},
                                                           {"auto", false},
                                                           {"Auto Select 2", false},
                                                           {"자동 선택", true},
                                                           {"자동선택", false},
                                                           {"DIRECT", true},
                                                           {"REJECT", true},
                                                           {"REJECT-DROP", false},
                                                           {"GLOBAL", false},
                                                           {"Expires: 2030-01-01", true},
                                                           {"距離下次重置剩餘：12 天", true},
                                                           {"만료 2030-01-01", true},
                                                           {"  Plan Expires 2030", true},
                                                           {"HK Expires", false},
                                                           {"expires 2030", false},
                                                           {"🇭🇰 香港 01", false},
                                                           {"", false}};
  for (const auto& [name, hidden] : table) EXPECT_EQ(isHiddenProxyChoice(name), hidden) << name;
  EXPECT_EQ(filteredProxyChoices({"HK 01", "Auto", "JP 02", "剩余流量：1 GB", "HK 01", " DIRECT "}),
            (std::vector<std::string>{"HK 01", "JP 02", "HK 01"}));
}

TEST(RoutingModeTest, MapsLabelsAndArguments) {
  const std::vector<std::pair<std::string, std::optional<std::string>>> labels = {
      {"  Global ", "global"},
      {"\u3000DIRECT\n", "direct"},
      {"Rules", "rule"},
      {"Rule Mode", "rule"},
      {"全局模式", "global"},
      {"全域", "global"},
      {"グローバル", "global"},
      {"규칙 모드", "rule"},
      {"直連模式", "direct"},
      {"ダイレクト", "direct"},
      {"rule-mode", std::nullopt},
      {"全局 模式", std::nullopt},
      {"글로벌모드", std::nullopt},
      {"globals", std::nullopt},
      {"ＧＬＯＢＡＬ", std::nullopt},
      {"", std::nullopt}};
  for (const auto& [label, mode] : labels) EXPECT_EQ(normalizedMihomoMode(label), mode) << label;
  EXPECT_EQ(normalizedMihomoMode(std::nullopt), std::nullopt);

  const std::vector<std::pair<std::string, std::optional<std::string>>> args = {
      {R"([" Global "])", "global"},
      {R"(["bogus", "rule"])", std::nullopt},
      {R"([{"mode": "bogus", "routing_mode": "直连"}])", "direct"},
      {R"([{"mode": 1, "routingMode": "rules"}])", "rule"},
      {R"([{"routing_mode": "direct", "routingMode": "global", "mode": "rule"}])", "rule"},
      {R"([{"Mode": "global"}])", std::nullopt},
      {R"([["global"]])", std::nullopt},
      {R"("global")", std::nullopt}};
  for (const auto& [json, mode] : args)
    EXPECT_EQ(runtimeModeFromArgs(Json::parse(json)), mode) << json;
}

std::string generatedTail(std::string_view mode) {
  return "\nport: 33210\nsocks-port: 33211\nexternal-controller: 127.0.0.1:33212\n"
         "allow-lan: false\ngeo-auto-update: false\nipv6: false\nmode: " +
         std::string(mode) + "\n";
}

TEST(RuntimeConfigTextTest, RewritesATypicalSubscription) {
  constexpr std::string_view subscription =
      "mixed-port: 7890\nport: 7891\nallow-lan: true\nmode: Rule\nlog-level: info\n"
      "tun:\n  enable: true\n  stack: gvisor\ndns:\n  enable: true\n  nameserver:\n    - 8.8.8.8\n"
      "proxies:\n"
      "  - {name: 剩余流量：100 GB, type: ss, server: a, port: 1}\n"
      "  - {name: \"🇭🇰 香港 01\", type: vless, server: b, port: 443, tls: true, reality-opts: "
      "{public-key: k}}\n"
      "  - name: block\n    type: ss\n    port: 8388\n"
      "proxy-groups:\n"
      "  - {name: QEV, type: select, proxies: [自动选择,\"🇭🇰 香港 01\",DIRECT]}\n"
      "  - {name: 自动选择, type: url-test, proxies: [\"🇭🇰 香港 01\"]}\n"
      "rules:\n  - DOMAIN,example.com,DIRECT\n  - AND,((NETWORK,UDP),(DST-PORT,443)),REJECT\n"
      "  - MATCH,QEV\n";
  const std::string body =
      "log-level: info\nproxies:\n"
      "  - {name: \"🇭🇰 香港 01\", type: vless, server: b, port: 443, tls: true, reality-opts: "
      "{public-key: k}, client-fingerprint: chrome }\n"
      "  - name: block\n    type: ss\n    port: 8388\n"
      "proxy-groups:\n  - {name: QEV, type: select, proxies: [\"🇭🇰 香港 01\"]}\n"
      "rules:\n  - AND,((NETWORK,UDP),(DST-PORT,443)),REJECT\n  - DOMAIN,example.com,DIRECT\n"
      "  - MATCH,QEV\n";
  EXPECT_EQ(buildRuntimeConfigText(subscription, "global", false), body + generatedTail("global"));
  EXPECT_EQ(buildRuntimeConfigText(subscription, "rule", true),
            body + generatedTail("rule") + std::string(kTunDnsBlock));
  EXPECT_EQ(buildRuntimeConfigText("", "rule", false),
            "\nrules:\n  - AND,((NETWORK,UDP),(DST-PORT,443)),REJECT\n" + generatedTail("rule"));
}

TEST(RuntimeConfigTextTest, OwnedKeysDropOnlyAtTheTopLevel) {
  const std::vector<std::pair<std::string, bool>> table = {
      {"mixed-port: 7890", true},  {"external-controller: 0.0.0.0:9090", true},
      {"bind-address: '*'", true}, {"geo-auto-update: true", true},
      {"ipv6: true", true},        {"port:", true},
      {"  port: 443", false},      {"\tsocks-port: 7891", false},
      {"    mode: global", false}, {"ports: 1", false},
      {"mode : rule", false},      {"Mode: rule", false},
      {"# port: 1", false},        {"ipv6-timeout: 1", false}};
  for (const auto& [line, dropped] : table) {
    const std::string out = buildRuntimeConfigText("a:\n" + line + "\nb: 1\n", "rule", false);
    EXPECT_EQ(out.substr(0, out.find("\nrules:")), dropped ? "a:\nb: 1" : "a:\n" + line + "\nb: 1");
  }
}

}  // namespace
}  // namespace qev::config
