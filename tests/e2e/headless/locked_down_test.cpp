// The core's controller serves only qev: a secret per core, CORS for the app's own page alone,
// and nothing a subscription says can open another door.
#include <gtest/gtest.h>

#include "headless_process.h"
#include "test_processes.h"

namespace qev::test {
namespace {

TEST(LockedDownTest, OnlyQevCanSteerTheCore) {
  TempDir dir;
  PanelProcess panel(dir.path());
  ASSERT_GT(panel.port(), 0);
  const int listener = freeLoopbackPort();
  const int tunnel = freeLoopbackPort();
  const int controller = freeLoopbackPort();
  const std::string subscription =
      "external-controller: 0.0.0.0:" + std::to_string(controller) +
      "\nsecret: from-the-subscription\nexternal-ui: ui\n"
      "external-controller-cors:\n  allow-origins:\n    - '*'\n  allow-private-network: true\n"
      "listeners:\n  - {name: open, type: mixed, listen: 0.0.0.0, port: " +
      std::to_string(listener) + "}\ntunnels:\n  - tcp/udp,0.0.0.0:" + std::to_string(tunnel) +
      ",8.8.8.8:53,HK\nproxies:\n"
      "  - {name: HK, type: ss, server: 127.0.0.1, port: 2, cipher: aes-128-gcm, password: p}\n"
      "proxy-groups:\n  - {name: Proxy, type: select, proxies: [HK]}\nrules:\n  - MATCH,Proxy\n";
  ASSERT_TRUE(panel.control({{"subscription_body", subscription}}));
  HeadlessQev qev(HeadlessQev::Options{dir.path() / "home",
                                       {{"QEV_API_BASE", panel.base()},
                                        {"QEV_MIHOMO", kFakeCore},
                                        {"GSETTINGS_BACKEND", "keyfile"},
                                        {"XDG_CONFIG_HOME", (dir.path() / "config").string()}},
                                       {"--headless"}});
  const auto link = panel.base() + "/api/v1/client/subscribe?token=" + kDemoToken;
  ASSERT_EQ(qev.call("1", "updateConfig", Json::array({link}))->value("result", Json()), true)
      << qev.logText();

  // The app keeps working: its own calls and the page's relayed ones carry the secret.
  ASSERT_TRUE(qev.call("2", "getServers")->at("result").contains("SELECT"));
  EXPECT_EQ(qev.call("3", "setProxy", Json::array({"HK"}))->at("result"), true);
  EXPECT_EQ(qev.call("4", "startProxy")->at("result"), true) << qev.logText();
  const auto relayed =
      qev.call("5", "httpRequest", Json::array({{{"url", std::string(kController) + "/proxies"}}}));
  ASSERT_TRUE(relayed);
  EXPECT_EQ(relayed->at("result").value("status", 0), 200) << relayed->dump();
  EXPECT_EQ(relayed->dump().find("Bearer"), std::string::npos);

  // Anyone else: no secret, the subscription's secret, or a web page of another origin.
  for (const std::string authorization : {"", "Bearer from-the-subscription", "Bearer "}) {
    doubles::HttpCall call{"GET", std::string(kController) + "/proxies", std::nullopt, {}};
    if (!authorization.empty()) call.headers.push_back("Authorization: " + authorization);
    EXPECT_EQ(doubles::http(call).status, 401) << authorization;
  }
  const auto preflight = doubles::http(
      doubles::HttpCall{"OPTIONS",
                        std::string(kController) + "/configs",
                        std::nullopt,
                        {"Origin: http://evil.example", "Access-Control-Request-Method: PUT",
                         "Access-Control-Request-Private-Network: true"}});
  EXPECT_EQ(preflight.header("access-control-allow-origin"), "");
  EXPECT_EQ(preflight.header("access-control-allow-private-network"), "");

  // Nothing the subscription asked for listens.
  for (const int port : {listener, tunnel, controller}) EXPECT_TRUE(portFree(port)) << port;
  qev.closeInput();
  EXPECT_EQ(qev.waitExit(), 0);
}

}  // namespace
}  // namespace qev::test
