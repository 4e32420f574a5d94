// Live data end to end: the account's numbers and scheduled refreshes of the subscription, and
// traffic, connections, the core's log, delay tests and versions from a running test core.

#include <chrono>
#include <ctime>

#include "connected_qev.h"
#include "loopback_site.h"
#include "tunnel_client.h"

namespace qev::test {
namespace {

class LiveDataTest : public ProxyFlowTest {
 protected:
  static Json result(HeadlessQev& qev, const std::string& name, const Json& args = Json::array()) {
    static int next = 0;
    const auto answer = qev.call("live" + std::to_string(++next), name, args);
    return answer ? answer->value("result", Json()) : Json();
  }

  static bool sawEvent(HeadlessQev& qev, const std::string& name) {
    const auto lines = qev.answers();
    return std::any_of(lines.begin(), lines.end(),
                       [&](const Json& line) { return line.value("event", "") == name; });
  }
};

TEST_F(LiveDataTest, AccountNumbersAreKeptAndTheLinkIsRefreshedOnSchedule) {
  // An hour of 100 ms: the panel's 24-hour interval passes in 2.4 s.
  auto qev = start({{"QEV_AUTO_UPDATE_HOUR_MS", "100"}});
  ASSERT_EQ(result(*qev, "updateConfig", Json::array({subscribeLink()})), true) << qev->logText();
  const Json info = result(*qev, "getConfig")["subscriptionInfo"];
  EXPECT_EQ(info["upload"], 1288490189);
  EXPECT_EQ(info["download"], 1224065679);
  EXPECT_EQ(info["total"], 107374182400);
  const Json panel = Json::parse(doubles::httpGet(panelBase_ + "/__control").body);
  EXPECT_EQ(info["expire"], panel["expired_at"]);
  EXPECT_EQ(info["updateIntervalHours"], 24);
  EXPECT_LE(std::abs(info["updatedAt"].get<long long>() - std::time(nullptr)), 60);

  ASSERT_TRUE(eventually([&] { return logHas(*qev, "native.subscribe.auto: unchanged"); }, 20s))
      << qev->logText();

  // A bad answer never replaces the good subscription.
  const auto stored = readText(qev->dataFolder() / ".qevjs-subscribe.dat");
  ASSERT_TRUE(controlPanel({{"subscription_body", "<html>maintenance</html>"}}));
  ASSERT_TRUE(eventually([&] {
    return logHas(*qev, "native.subscribe.auto: failed invalid subscription; retry in 5 min");
  }));
  EXPECT_EQ(readText(qev->dataFolder() / ".qevjs-subscribe.dat"), stored);

  // A changed one is stored, applied to the running core, and the page is told.
  ASSERT_TRUE(controlPanel({{"subscription_body",
                             "proxies:\n"
                             "  - {name: NEW-01, type: ss, server: n.example.com, port: 443, "
                             "cipher: aes-128-gcm, password: p}\n"
                             "proxy-groups:\n"
                             "  - {name: SELECT, type: select, proxies: [NEW-01]}\n"
                             "rules:\n  - MATCH,SELECT\n"}}));
  ASSERT_TRUE(eventually([&] { return logHas(*qev, "native.subscribe.auto: updated"); }, 20s))
      << qev->logText();
  EXPECT_NE(readText(qev->dataFolder() / ".qevjs-subscribe.dat"), stored);
  EXPECT_TRUE(eventually([&] { return result(*qev, "getServers").contains("NEW-01"); }));
  EXPECT_TRUE(eventually([&] { return sawEvent(*qev, "subscription"); }));
}

TEST_F(LiveDataTest, TrafficConnectionsLogsDelaysAndVersionsComeFromTheCore) {
  const auto deadNodes = dir_.path() / "dead-nodes";
  writeText(deadNodes, "");
  auto qev = start({{"FAKE_CORE_DELAY_FAIL_FILE", deadNodes.string()}});
  connect(*qev);

  LoopbackSite site;
  const int port = std::stoi(site.origin().substr(site.origin().rfind(':') + 1));
  TunnelClient tunnel(port);
  ASSERT_TRUE(tunnel.established());
  EXPECT_NE(tunnel.page().find("<p>/</p>"), std::string::npos);

  Json connection;
  ASSERT_TRUE(eventually(
      [&] {
        const Json list = result(*qev, "getConnections")["connections"];
        for (const auto& item : list) {
          if (item["destination"] == "127.0.0.1:" + std::to_string(port)) connection = item;
        }
        return connection.is_object();
      },
      10s));
  EXPECT_EQ(connection["network"], "tcp");
  EXPECT_EQ(connection["rule"], "Match");
  EXPECT_FALSE(connection["chains"].empty());
  EXPECT_GT(connection["download"].get<long long>(), 0);

  EXPECT_TRUE(eventually(
      [&] {
        const Json traffic = result(*qev, "getTraffic");
        return traffic["upTotal"].get<long long>() > 0 && traffic["downTotal"].get<long long>() > 0;
      },
      10s));
  EXPECT_TRUE(eventually(
      [&] {
        for (const auto& line : result(*qev, "getLogs", Json::array({"info"}))) {
          const std::string text = line.value("text", "");
          if (text.starts_with("[TCP] ") &&
              text.find("--> 127.0.0.1:" + std::to_string(port)) != std::string::npos) {
            return line["level"] == "info" && line["time"].is_string();
          }
        }
        return false;
      },
      10s));

  EXPECT_EQ(result(*qev, "closeConnection", Json::array({connection["id"]})), true);
  EXPECT_TRUE(eventually([&] { return tunnel.closedByPeer(); }, 5s));

  // Delay tests: one node, and a whole group with a dead member.
  const Json servers = result(*qev, "getServers");
  const Json members = servers["SELECT"]["all"];
  ASSERT_GE(members.size(), 2u);
  const std::string alive = members[0];
  const std::string dead = members[1];
  writeText(deadNodes, dead);
  EXPECT_EQ(result(*qev, "testDelay", Json::array({{{"name", dead}}})), Json({{dead, nullptr}}));
  EXPECT_TRUE(result(*qev, "testDelay", Json::array({{{"name", alive}}}))[alive].is_number());
  const Json group = result(*qev, "testDelay", Json::array({{{"group", "SELECT"}}}));
  EXPECT_EQ(group.size(), members.size());
  EXPECT_EQ(group[dead], nullptr);
  EXPECT_TRUE(group[alive].is_number()) << group.dump();

  const Json versions = result(*qev, "getVersion");
  EXPECT_EQ(versions["core"], "v1.19.0");
  EXPECT_FALSE(versions["app"].get<std::string>().empty());
}

}  // namespace
}  // namespace qev::test
