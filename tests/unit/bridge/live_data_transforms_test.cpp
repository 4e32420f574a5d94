// The pure readings behind the live views: the panel's usage header and the core's connection
// list as the page gets them.
#include <gtest/gtest.h>

#include "proxies/live_commands.h"
#include "subscription/subscription_record.h"

namespace qev {
namespace {

TEST(SubscriptionUserinfoTest, PanelsSpellTheHeaderInManyWays) {
  struct Case {
    const char* header;
    std::optional<subscription::Usage> usage;
  };
  using subscription::Usage;
  const std::vector<Case> cases = {
      {"upload=1; download=2; total=3; expire=4", Usage{1, 2, 3, 4}},
      {"upload=1;download=2;total=3;expire=", Usage{1, 2, 3, std::nullopt}},
      {" Upload = 10 ; TOTAL=30 ", Usage{10, 0, 30, std::nullopt}},
      {"upload=1.5e3; download=-4; total=x; expire=1798646400.0", Usage{1500, 0, 0, 1798646400}},
      {"expire=0", Usage{0, 0, 0, std::nullopt}},
      {"", std::nullopt},
      {"plan=gold; remarks=x", std::nullopt},
  };
  for (const auto& c : cases) {
    const auto usage = subscription::parseSubscriptionUserinfo(c.header);
    ASSERT_EQ(usage.has_value(), c.usage.has_value()) << c.header;
    if (!usage) continue;
    EXPECT_EQ(usage->upload, c.usage->upload) << c.header;
    EXPECT_EQ(usage->download, c.usage->download) << c.header;
    EXPECT_EQ(usage->total, c.usage->total) << c.header;
    EXPECT_EQ(usage->expire, c.usage->expire) << c.header;
  }
  EXPECT_EQ(subscription::parseUpdateIntervalHours(" 12 "), 12);
  for (const char* bad : {"0", "-3", "1.5", "", "99999"}) {
    EXPECT_FALSE(subscription::parseUpdateIntervalHours(bad)) << bad;
  }
}

TEST(ConnectionsForPageTest, CoreConnectionsBecomeTheRowsThePageShows) {
  const Json reply = Json::parse(R"({
    "downloadTotal": 900, "uploadTotal": 100, "memory": 0,
    "connections": [
      {"id": "a", "upload": 5, "download": 7, "start": "2026-11-23T10:00:00Z",
       "chains": ["HK-01", "SELECT"], "rule": "DomainSuffix", "rulePayload": "example.com",
       "metadata": {"network": "tcp", "host": "www.example.com", "destinationIP": "93.184.216.34",
                    "destinationPort": "443"}},
      {"id": "b", "chains": ["DIRECT"], "rule": "Match", "rulePayload": "",
       "metadata": {"network": "udp", "host": "", "destinationIP": "1.1.1.1",
                    "destinationPort": "53"}},
      "not an object",
      {"id": "c", "metadata": "broken"}
    ]})");
  const Json page = proxies::connectionsForPage(reply);
  EXPECT_EQ(page["uploadTotal"], 100);
  EXPECT_EQ(page["downloadTotal"], 900);
  ASSERT_EQ(page["connections"].size(), 2u);
  EXPECT_EQ(page["connections"][0], Json::parse(R"json({
      "id": "a", "host": "www.example.com", "destination": "93.184.216.34:443",
      "network": "tcp", "chains": ["HK-01", "SELECT"], "rule": "DomainSuffix(example.com)",
      "upload": 5, "download": 7, "start": "2026-11-23T10:00:00Z"})json"));
  EXPECT_EQ(page["connections"][1]["host"], "1.1.1.1");
  EXPECT_EQ(page["connections"][1]["upload"], nullptr);
  // The core answers null for no connections.
  EXPECT_EQ(proxies::connectionsForPage(Json::parse(R"({"connections": null})"))["connections"],
            Json::array());
}

}  // namespace
}  // namespace qev
