// Subscriptions in the shapes that public panels and converters publish, through `qev --headless`
// against the test panel and the test core: each one loads, the picked node is where the
// traffic goes in rule and in global mode, and answers the core could not run never replace
// the stored subscription.
#include <gtest/gtest.h>

#include "headless_process.h"
#include "test_processes.h"

namespace qev::test {
namespace {

constexpr const char* kNodes =
    "proxies:\n"
    "  - {name: 剩余流量：97 GB, type: ss, server: 127.0.0.1, port: 1, cipher: aes-128-gcm, "
    "password: p}\n"
    "  - {name: 香港 01, type: ss, server: 127.0.0.1, port: 2, cipher: aes-128-gcm, password: p}\n"
    "  - {name: 日本 02, type: ss, server: 127.0.0.1, port: 3, cipher: aes-128-gcm, password: p}\n";

struct Shape {
  std::string name;
  std::string text;      // the subscription
  std::string pick;      // the node the user picks
  std::string catchAll;  // where rule mode sends the rest of the traffic ("" when nowhere)
};

// Converter output: flow-style proxies, block-style groups that still list the pseudo-node.
const std::vector<Shape> kShapes = {
    {"converter_chain",
     std::string(kNodes) +
         "proxy-groups:\n"
         "  - name: 🐟 漏网之鱼\n    type: select\n    proxies:\n      - 🚀 节点选择\n      - "
         "DIRECT\n"
         "  - name: 🚀 节点选择\n    type: select\n    proxies:\n      - ♻️ "
         "自动选择\n"
         "      - 香港 01\n      - 日本 02\n      - 剩余流量：97 GB\n"
         "  - name: ♻️ 自动选择\n    type: url-test\n    url: "
         "http://www.gstatic.com/generate_204\n"
         "    interval: 300\n    proxies:\n      - 香港 01\n      - 日本 02\n"
         "  - {name: 🎬 国内媒体, type: select, proxies: [DIRECT, 香港 01]}\n"
         "  - {name: 🛑 广告拦截, type: select, proxies: [REJECT, DIRECT]}\n"
         "rules:\n# domestic first\n#   and the rest\n  - DOMAIN-SUFFIX,ads.example,🛑 "
         "广告拦截\n"
         "  - DOMAIN-SUFFIX,tv.example,🎬 国内媒体\n  - MATCH,🐟 漏网之鱼\n",
     "日本 02", "🐟 漏网之鱼"},
    {"match_to_select_starting_with_direct",
     std::string(kNodes) +
         "proxy-groups:\n  - {name: Final, type: select, proxies: [DIRECT, 香港 01, 日本 02]}\n"
         "rules:\n  - MATCH,Final\n",
     "香港 01", "Final"},
    {"match_to_url_test",
     std::string(kNodes) +
         "proxy-groups:\n  - {name: Auto-HK, type: url-test, proxies: [香港 01, 日本 02]}\n"
         "  - {name: Manual, type: select, proxies: [日本 02, 香港 01]}\n"
         "rules:\n  - MATCH,Auto-HK\n",
     "日本 02", "Auto-HK"},
    {"no_match_rule",
     std::string(kNodes) +
         "proxy-groups:\n  - {name: Nodes, type: select, proxies: [香港 01, 日本 02]}\n",
     "日本 02", ""},
    {"select_defined",
     std::string(kNodes) +
         "proxy-groups:\n  - {name: SELECT, type: select, proxies: [香港 01, 日本 02]}\n"
         "rules:\n  - MATCH,SELECT\n",
     "日本 02", "SELECT"},
    {"product_group_defined",
     std::string(kNodes) +
         "proxy-groups:\n  - {name: QEV加速, type: select, proxies: [香港 01, 日本 02]}\n"
         "  - {name: Out, type: select, proxies: [QEV加速, DIRECT]}\nrules:\n  - MATCH,Out\n",
     "日本 02", "Out"},
    {"block_style",
     "port: 7890\nproxies:\n  - name: 香港 01\n    type: ss\n    server: 127.0.0.1\n    port: 2\n"
     "    cipher: aes-128-gcm\n    password: p\n  - name: 日本 02\n    type: ss\n"
     "    server: 127.0.0.1\n    port: 3\n    cipher: aes-128-gcm\n    password: p\n"
     "proxy-groups:\n  - name: Proxy\n    type: select\n    proxies:\n      - 香港 01\n"
     "      - 日本 02\nrules:\n  - MATCH,Proxy\n",
     "日本 02", "Proxy"},
};

// Follows `now` from a group down to what finally carries the traffic.
std::string followNow(const Json& table, std::string name) {
  for (int hops = 0; hops < 10 && table.contains(name) && table[name].contains("now"); ++hops) {
    name = table[name]["now"].get<std::string>();
  }
  return name;
}

class SubscriptionShapesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_GT(panel_.port(), 0) << "the test panel did not start";
    qev_ = std::make_unique<HeadlessQev>(
        HeadlessQev::Options{dir_.path() / "home",
                             {{"QEV_API_BASE", panel_.base()},
                              {"QEV_MIHOMO", kFakeCore},
                              {"FAKE_CORE_DELAY_FAIL", "timeout:剩余流量：97 GB"},
                              {"GSETTINGS_BACKEND", "keyfile"},
                              {"XDG_CONFIG_HOME", (dir_.path() / "config").string()}},
                             {"--headless"}});
  }

  Json call(const std::string& name, const Json& args = Json::array()) {
    const auto answer = qev_->call(std::to_string(++calls_), name, args, std::chrono::seconds(90));
    return answer ? *answer : Json();
  }

  // The core's table, asked through the relay: only qev holds the controller's secret.
  Json coreTable() {
    const Json reply =
        call("httpRequest", Json::array({{{"url", std::string(kController) + "/proxies"}}}));
    return Json::parse(reply["result"].value("body", ""), nullptr, false)["proxies"];
  }

  Json serve(const Json& body) {
    EXPECT_TRUE(panel_.control({{"subscription_body", body}}));
    return call("updateConfig",
                Json::array({panel_.base() + "/api/v1/client/subscribe?token=" + kDemoToken}));
  }

  TempDir dir_;
  PanelProcess panel_{dir_.path()};
  std::unique_ptr<HeadlessQev> qev_;
  int calls_ = 0;
};

TEST_F(SubscriptionShapesTest, EveryShapeLoadsAndThePickCarriesTheTraffic) {
  for (const auto& shape : kShapes) {
    SCOPED_TRACE(shape.name);
    const Json loaded = serve(shape.text);
    ASSERT_EQ(loaded["result"], true) << loaded.dump() << qev_->logText();
    const Json servers = call("getServers")["result"];
    ASSERT_TRUE(servers.contains("SELECT")) << servers.dump();
    ASSERT_EQ(call("setProxy", Json::array({shape.pick}))["result"], true) << qev_->logText();

    const Json table = coreTable();
    EXPECT_EQ(followNow(table, "GLOBAL"), shape.pick) << table.dump();
    if (!shape.catchAll.empty()) {
      EXPECT_EQ(followNow(table, shape.catchAll), shape.pick);
    }
    const Json started = call("startProxy");
    EXPECT_EQ(started["result"], true) << started.dump() << qev_->logText();
    call("stopProxy");
  }
  // A dead node: the probe goes through the traffic path and fails.
  serve(kShapes.front().text);
  ASSERT_EQ(call("setProxy", Json::array({"剩余流量：97 GB"}))["result"], true);
  const Json dead = call("startProxy");
  EXPECT_EQ(dead["error"], "NODE_UNAVAILABLE") << dead.dump();
}

TEST_F(SubscriptionShapesTest, UnusableAnswersNeverReplaceTheStoredSubscription) {
  ASSERT_EQ(serve(kShapes.front().text)["result"], true) << qev_->logText();
  const auto stored = qev_->dataFolder() / ".qevjs-subscribe.dat";
  const std::string before = readText(stored);
  const std::vector<Json> bodies = {
      "<!DOCTYPE html><html><body>502 Bad Gateway</body></html>", "",
      R"({"message":"token is error"})",
      Json::array({0x70, 0x72, 0x6f, 0x78, 0x69, 0x65, 0x73, 0x3a, 0x0a, 0x20, 0x2d, 0xff, 0xfe}),
      "c3M6Ly9ZV1Z6TFRFeU9DMW5ZMjA2Y0E9PUAxMjcuMC4wLjE6MQ==\ndHJvamFuOi8vcEAxMjcuMC4wLjE6Mg==\n"};
  for (const auto& body : bodies) {
    const Json answer = serve(body);
    EXPECT_EQ(answer["error"], "invalid subscription") << answer.dump();
    EXPECT_EQ(readText(stored), before);
  }
  EXPECT_NE(qev_->logText().find("native.subscribe.invalid: not UTF-8 text"), std::string::npos);
  EXPECT_EQ(call("getServers")["result"].contains("SELECT"), true);
}

}  // namespace
}  // namespace qev::test
