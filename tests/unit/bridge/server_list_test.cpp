#include "proxies/server_list.h"

#include <gtest/gtest.h>

#include "proxies/selection_args.h"
#include "proxies/traffic_path.h"
#include "subscription/subscribe_link.h"

namespace qev::proxies {
namespace {

Json group(const std::string& name, const std::string& type, std::vector<std::string> all,
           const std::string& now) {
  return {{"name", name}, {"type", type}, {"all", all}, {"now", now}, {"udp", true}};
}

Json node(const std::string& name) {
  return {{"name", name}, {"type", "Vmess"}};
}

TEST(ServerListTest, HiddenEntriesAndMembersDisappearAndNowMovesToAVisibleMember) {
  Json table = {
      {"HK-01", node("HK-01")},
      {"剩余流量：97 GB", node("剩余流量：97 GB")},
      {"Fallback", group("Fallback", "Fallback", {"HK-01"}, "HK-01")},
      {"Main", group("Main", "Selector", {"自动选择", "DIRECT", "HK-01", "JP-02"}, "自动选择")},
      {"OnlyHidden", group("OnlyHidden", "Selector", {"Auto", "REJECT"}, "Auto")},
      {"odd", 42}};
  const auto result = normalizeProxiesForClient(table, {});
  const Json& t = result.table;
  EXPECT_FALSE(t.contains("剩余流量：97 GB"));
  EXPECT_FALSE(t.contains("Fallback"));
  EXPECT_EQ(t["Main"]["all"], Json::array({"HK-01", "JP-02"}));
  EXPECT_EQ(t["Main"]["now"], "HK-01");
  EXPECT_EQ(t["Main"]["udp"], true);  // other members pass through
  EXPECT_EQ(t["OnlyHidden"]["all"], Json::array());
  EXPECT_EQ(t["OnlyHidden"]["now"], "");
  EXPECT_EQ(t["odd"], 42);
  ASSERT_TRUE(result.alias);
  EXPECT_EQ(*result.alias, "Main");
  EXPECT_EQ(t["SELECT"]["name"], "SELECT");
  EXPECT_EQ(t["SELECT"]["all"], t["Main"]["all"]);
  EXPECT_EQ(t["SELECT"]["aliasOf"], "Main");
  EXPECT_EQ(t["Main"]["name"], "Main");  // the original stays under its own name
}

TEST(MainGroupTest, FollowsTheCatchAllRuleToTheSelectorThatHoldsNodes) {
  const Json converter = {
      {"🐟 漏网之鱼", group("🐟 漏网之鱼", "Selector", {"🚀 节点选择", "DIRECT"}, "🚀 节点选择")},
      {"🚀 节点选择",
       group("🚀 节点选择", "Selector", {"♻️ 自动选择", "HK", "JP"}, "♻️ 自动选择")},
      {"♻️ 自动选择", group("♻️ 自动选择", "URLTest", {"HK", "JP"}, "HK")},
      {"🎬 国内媒体", group("🎬 国内媒体", "Selector", {"DIRECT", "HK"}, "DIRECT")},
      {"GLOBAL", group("GLOBAL", "Selector", {"DIRECT", "HK", "JP"}, "DIRECT")},
      {"DIRECT", {{"name", "DIRECT"}, {"type", "Direct"}}},
      {"HK", node("HK")},
      {"JP", node("JP")}};
  const config::ConfigOutline outline{"🐟 漏网之鱼", {"🎬 国内媒体", "🐟 漏网之鱼", "🚀 节点选择"}};
  EXPECT_EQ(resolveMainGroup(converter, outline), "🚀 节点选择");
  EXPECT_EQ(selectorPath(converter, "🐟 漏网之鱼", "🚀 节点选择"),
            (std::vector<std::string>{"🐟 漏网之鱼", "🚀 节点选择"}));
  EXPECT_EQ(selectorPath(converter, "🎬 国内媒体", "🚀 节点选择"), std::vector<std::string>{});
  EXPECT_EQ(normalizeProxiesForClient(converter, outline).alias, "🚀 节点选择");

  // A catch-all straight to an automatic group: the other panels' main groups, then file order.
  const config::ConfigOutline toUrlTest{"♻️ 自动选择", {"🎬 国内媒体", "🚀 节点选择"}};
  EXPECT_EQ(resolveMainGroup(converter, toUrlTest), "GLOBAL");
  Json withoutGlobal = converter;
  withoutGlobal.erase("GLOBAL");
  EXPECT_EQ(resolveMainGroup(withoutGlobal, toUrlTest), "🚀 节点选择");
  EXPECT_EQ(resolveMainGroup(withoutGlobal, config::ConfigOutline{}), "🚀 节点选择");

  // The subscription's own names win.
  Json product = converter;
  product["QEV加速"] = group("QEV加速", "Selector", {"HK"}, "HK");
  EXPECT_EQ(resolveMainGroup(product, outline), "QEV加速");
  product["SELECT"] = group("SELECT", "Selector", {"JP"}, "JP");
  EXPECT_EQ(resolveMainGroup(product, outline), "SELECT");
  EXPECT_EQ(normalizeProxiesForClient(product, outline).alias, std::nullopt);
  EXPECT_EQ(resolveMainGroup(Json{{"A", node("A")}}, outline), std::nullopt);

  EXPECT_EQ(trafficEntry("rule", outline), "🐟 漏网之鱼");
  EXPECT_EQ(trafficEntry("global", outline), "GLOBAL");
  EXPECT_EQ(trafficEntry("direct", outline), std::nullopt);
}

TEST(MainGroupTest, OutlineReadsTheCatchAllTargetAndTheGroupOrder) {
  const auto outline = config::outlineOf(
      "proxy-groups:\n  - {name: 'B, b', type: select, proxies: [x]}\n  - name: \"A\"\n"
      "    proxies:\n      - x\nrules:\n  - MATCH,DIRECT\n  - 'MATCH, \"🐟 漏网之鱼\"'\n");
  EXPECT_EQ(outline.catchAllTarget, "🐟 漏网之鱼");
  EXPECT_EQ(outline.groupOrder, (std::vector<std::string>{"B, b", "A"}));
}

struct ArgsCase {
  std::string name;
  Json args;
  std::string group;
  std::string proxy;
  friend void PrintTo(const ArgsCase& c, std::ostream* os) { *os << c.name; }
};

class SetProxyArgsTest : public ::testing::TestWithParam<ArgsCase> {};

TEST_P(SetProxyArgsTest, Parses) {
  const auto choice = parseSetProxyArgs(GetParam().args);
  EXPECT_EQ(choice.group, GetParam().group);
  EXPECT_EQ(choice.name, GetParam().proxy);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SetProxyArgsTest,
    ::testing::Values(ArgsCase{"selector_and_proxy",
                               Json::array({{{"selector", "GLOBAL"}, {"proxy", "HK-01"}}}),
                               "GLOBAL", "HK-01"},
                      ArgsCase{"group_outranks_selector",
                               Json::array({{{"group", "A"}, {"selector", "B"}, {"name", "n"}}}),
                               "A", "n"},
                      ArgsCase{"non_string_key_skipped",
                               Json::array({{{"name", 5}, {"node", "JP"}}}), "SELECT", "JP"},
                      ArgsCase{"single_string", Json::array({"HK-01"}), "SELECT", "HK-01"},
                      ArgsCase{"group_and_name", Json::array({"G", "N"}), "G", "N"},
                      ArgsCase{"empty_group_defaults", Json::array({"", "N"}), "SELECT", "N"},
                      ArgsCase{"number", Json::array({7}), "SELECT", ""},
                      ArgsCase{"nothing", Json::array(), "SELECT", ""}),
    [](const auto& info) { return info.param.name; });

struct LinkCase {
  std::string name;
  std::string link;
  std::string expected;
  friend void PrintTo(const LinkCase& c, std::ostream* os) { *os << c.name; }
};

class SubscribeLinkTest : public ::testing::TestWithParam<LinkCase> {};

TEST_P(SubscribeLinkTest, Rewrites) {
  EXPECT_EQ(subscription::rewriteSubscribeUrl(GetParam().link, "https://api.example.net"),
            GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SubscribeLinkTest,
    ::testing::Values(
        LinkCase{"short_link_any_host", "https://short.example.org/s/AbC123",
                 "https://api.example.net/api/v1/client/subscribe?token=AbC123&flag=clash.meta"},
        LinkCase{"short_link_extra_path", "https://x.org/s//AbC/more",
                 "https://api.example.net/api/v1/client/subscribe?token=AbC&flag=clash.meta"},
        LinkCase{"empty_short_link_kept", "https://x.org/s/", "https://x.org/s/"},
        LinkCase{"app_get_config", "https://p.org/api/v1/client/app/getConfig?token=x",
                 "https://p.org/api/v1/client/subscribe?token=x&flag=clash.meta"},
        LinkCase{"get_config", "https://p.org/api/v1/client/getConfig",
                 "https://p.org/api/v1/client/subscribe?flag=clash.meta"},
        LinkCase{"flag_present_any_case",
                 "https://p.org/api/v1/client/subscribe?token=x&FLAG=Clash.Meta",
                 "https://p.org/api/v1/client/subscribe?token=x&FLAG=Clash.Meta"},
        LinkCase{"other_provider_unchanged", "https://other.org/sub?id=1",
                 "https://other.org/sub?id=1"},
        LinkCase{"not_a_url", "HK-01", "HK-01"}),
    [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace qev::proxies
