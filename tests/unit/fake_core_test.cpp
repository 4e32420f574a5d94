// Checks the test core against what the real core does (core-controller.md), since every
// end-to-end test of the core supervision relies on it. Uses the fixed ports 33210-33212.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "../support/testing/doubles_harness.h"
#include "base/json.h"
#include "temp_home.h"
#include "test_config.h"

namespace qev::test {
namespace {

using namespace doubles;

constexpr const char* kBase = "http://127.0.0.1:33212";

// Three nodes (one with a blank and CJK, one with "/" and ","), a selector, an url-test, a
// load-balance and a selector whose first member rejects.
constexpr const char* kConfig = R"(port: 33210
socks-port: 33211
external-controller: 127.0.0.1:33212
allow-lan: false
mode: rule
log-level: info
proxies:
    - { name: HK-01, type: vmess, server: a.example.com, port: 443, uuid: u, alterId: 0, cipher: auto }
    - { name: '东京 02', type: ss, server: b.example.com, port: 8388, cipher: aes-128-gcm, password: p, udp: true }
    - { name: 'a/b, c', type: trojan, server: c.example.com, port: 443, password: p }
proxy-groups:
    - { name: QEV加速, type: select, proxies: [HK-01, '东京 02', 'a/b, c'] }
    - { name: Auto, type: url-test, proxies: [HK-01, '东京 02'], url: 'http://www.gstatic.com/generate_204', interval: 300 }
    - { name: Balance, type: load-balance, proxies: [HK-01, '东京 02'] }
    - { name: Blocked, type: select, proxies: [REJECT, HK-01] }
rules:
    - AND,((NETWORK,UDP),(DST-PORT,443)),REJECT
    - 'DOMAIN,example.com,Auto'
    - 'MATCH,QEV加速'
)";

std::string url(const std::string& path) {
  return std::string(kBase) + path;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) out.push_back(line);
  return out;
}

Json parsed(const HttpReply& reply) {
  return Json::parse(reply.body, nullptr, false);
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

bool portFree(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  int yes = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool free = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return free;
}

class FakeCoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_STRNE(kFakeCore, "") << "fake_core was not built";
    home_ = dir_.path() / "data";
    config_ = home_ / "runtime.yaml";
    std::filesystem::create_directories(home_);
    writeText(config_, kConfig);
  }

  std::unique_ptr<ChildProcess> launch(std::vector<std::string> args,
                                       std::map<std::string, std::string> env = {}) {
    return std::make_unique<ChildProcess>(ChildProcess::Options{
        kFakeCore, std::move(args), "clash.mihomo", std::move(env), dir_.path()});
  }

  // Suites of other build trees on this machine start cores on the same fixed ports, so a
  // core that binds waits until they are free first.
  std::unique_ptr<ChildProcess> launchOnFreePorts(std::map<std::string, std::string> env = {},
                                                  std::vector<int> ports = {33210, 33211, 33212}) {
    EXPECT_TRUE(waitUntil([&] { return std::all_of(ports.begin(), ports.end(), portFree); }, 120s))
        << "the fixed core ports stay taken by another program";
    return launch({"-d", home_.string(), "-f", config_.string()}, std::move(env));
  }

  // Starts the core on the runtime file and waits until it has applied it, starting again
  // when another program took one of the ports in the meantime.
  std::unique_ptr<ChildProcess> start(std::map<std::string, std::string> env = {}) {
    std::unique_ptr<ChildProcess> core;
    for (int attempt = 0; attempt < 5; ++attempt) {
      core = launchOnFreePorts(env);
      waitUntil([&] {
        return contains(core->stdoutText(), "Initial configuration complete") || !core->running();
      });
      const std::string out = core->stdoutText();
      if (!contains(out, "listen error") && !contains(out, "server error")) break;
    }
    EXPECT_TRUE(contains(core->stdoutText(), "RESTful API listening at: 127.0.0.1:33212"))
        << core->stdoutText();
    return core;
  }

  HttpReply put(const std::string& path, const std::string& body) {
    return http(HttpCall{"PUT", url(path), body, {}});
  }
  HttpReply patch(const std::string& path, const std::string& body) {
    return http(HttpCall{"PATCH", url(path), body, {}});
  }
  std::string nowOf(const std::string& group) {
    return parsed(httpGet(url("/proxies/" + encodeSegment(group))))["now"].get<std::string>();
  }

  TempDir dir_;
  std::filesystem::path home_;
  std::filesystem::path config_;
};

TEST_F(FakeCoreTest, RefusedConfigurationsExitOneWithOneFatalLineAndNoController) {
  struct Case {
    const char* text;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"mode: bogus\n", "Parse config error: invalid mode"},
      {"", "Parse config error: configuration file " + config_.string() + " is empty"},
      {"proxy-groups:\n    - { name: G, type: select, proxies: [X] }\n",
       "Parse config error: proxy group[0]: G: 'X' not found"},
      {"rules:\n    - 'DOMAIN,a.com,DIRECT'\n    - 'MATCH,Foo'\n",
       "Parse config error: rules[1] [MATCH,Foo] error: proxy [Foo] not found"},
      {"rules:\n    - AND,((NETWORK,UDP),(DST-PORT,443)),Gone\n",
       "Parse config error: rules[0] [AND,((NETWORK,UDP),(DST-PORT,443)),Gone] error: proxy [Gone] "
       "not found"},
      {"port: 1\nmode: rule\nport: 2\n", "mapping key \\\"port\\\" already defined at line 1"},
      {"proxies:\n    - { name: 'broken, type: ss }\n", "Parse config error: yaml: line "},
      {"proxies:\n    - { name: A, type: ss, server: s, port: 1, cipher: c, password: p }\n"
       "    - { name: A, type: ss, server: s, port: 1, cipher: c, password: p }\n",
       "Parse config error: proxy A is the duplicate name"},
      {"rules:\n    - 'GEOIP,CN,DIRECT'\n", "can't initial GeoIP"},
      {"dns:\n  enable: true\n", "NameServer cannot be empty"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    writeText(config_,
              std::string(c.text) +
                  (std::string(c.text).empty() ? "" : "external-controller: 127.0.0.1:33212\n"));
    auto core = launch({"-d", home_.string(), "-f", config_.string()});
    ASSERT_EQ(core->waitExit(), 1);
    const auto out = lines(core->stdoutText());
    ASSERT_FALSE(out.empty());
    int fatal = 0;
    for (const auto& line : out) fatal += line.find("level=fatal") != std::string::npos;
    EXPECT_EQ(fatal, 1);
    EXPECT_NE(out.back().find("level=fatal msg=\""), std::string::npos) << out.back();
    EXPECT_NE(out.back().find(c.message), std::string::npos) << out.back();
    EXPECT_EQ(core->stderrText(), "");
    EXPECT_FALSE(contains(core->stdoutText(), "RESTful API"));
  }
}

TEST_F(FakeCoreTest, GeoRulesLoadOnceTheDatabasesAreInTheHomeFolder) {
  writeText(config_, "rules:\n    - 'GEOSITE,cn,DIRECT'\n    - 'GEOIP,CN,DIRECT'\n");
  auto refused = launch({"-d", home_.string(), "-f", config_.string(), "-t"});
  EXPECT_EQ(refused->waitExit(), 1);
  writeText(home_ / "GeoSite.dat", "x");
  writeText(home_ / "Country.mmdb", "x");
  auto accepted = launch({"-d", home_.string(), "-f", config_.string(), "-t"});
  EXPECT_EQ(accepted->waitExit(), 0) << accepted->stdoutText();
}

TEST_F(FakeCoreTest, CommandLineFlagsBehaveLikeTheCore) {
  auto version = launch({"-v"});
  EXPECT_EQ(version->waitExit(), 0);
  EXPECT_EQ(version->stdoutText().rfind("Mihomo Meta v1.19", 0), 0u);

  auto unknown = launch({"-d", home_.string(), "-x"});
  EXPECT_EQ(unknown->waitExit(), 2);
  EXPECT_NE(unknown->stderrText().find("flag provided but not defined: -x"), std::string::npos);

  auto missingValue = launch({"-d"});
  EXPECT_EQ(missingValue->waitExit(), 2);
  EXPECT_NE(missingValue->stderrText().find("flag needs an argument: -d"), std::string::npos);

  // A missing -f file is created holding only the default mixed port; -t then accepts it.
  const auto fresh = dir_.path() / "new-home";
  auto test = launch({"-d", fresh.string(), "-f", (fresh / "fresh.yaml").string(), "-t"});
  EXPECT_EQ(test->waitExit(), 0);
  EXPECT_EQ(readText(fresh / "fresh.yaml"), "mixed-port: 7890");
  EXPECT_NE(test->stdoutText().find("test is successful"), std::string::npos);
}

TEST_F(FakeCoreTest, ProxyTableListsBuiltInsNodesGroupsAndGlobal) {
  auto core = start();
  const HttpReply reply = httpGet(url("/proxies"));
  ASSERT_EQ(reply.status, 200);
  EXPECT_EQ(reply.header("content-type"), "application/json");
  EXPECT_EQ(reply.body.back(), '\n');
  Json table = parsed(reply)["proxies"];

  std::vector<std::string> keys;
  for (const auto& [name, entry] : table.items()) keys.push_back(name);
  const std::vector<std::string> expectedKeys = {
      "Auto", "Balance", "Blocked", "COMPATIBLE",  "DIRECT", "GLOBAL", "HK-01",
      "PASS", "QEV加速", "REJECT",  "REJECT-DROP", "a/b, c", "东京 02"};
  EXPECT_EQ(keys, expectedKeys);
  // Sorted in the reply text itself, not only after parsing.
  EXPECT_LT(reply.body.find("\"Auto\":{"), reply.body.find("\"Balance\":{"));
  EXPECT_LT(reply.body.find("\"REJECT-DROP\":{"), reply.body.find("\"a/b, c\":{"));

  EXPECT_EQ(table["GLOBAL"]["type"], "Selector");
  EXPECT_EQ(table["GLOBAL"]["all"], Json::array({"DIRECT", "REJECT", "HK-01", "东京 02", "a/b, c",
                                                 "QEV加速", "Auto", "Balance", "Blocked"}));
  EXPECT_EQ(table["GLOBAL"]["now"], "DIRECT");
  EXPECT_EQ(table["QEV加速"]["now"], "HK-01");
  EXPECT_EQ(table["Auto"]["type"], "URLTest");
  EXPECT_EQ(table["Auto"]["testUrl"], "http://www.gstatic.com/generate_204");
  EXPECT_EQ(table["Balance"]["type"], "LoadBalance");
  EXPECT_FALSE(table["Balance"].contains("now"));
  EXPECT_FALSE(table["QEV加速"].contains("testUrl"));
  EXPECT_EQ(table["东京 02"]["type"], "Shadowsocks");
  EXPECT_EQ(table["东京 02"]["udp"], true);
  EXPECT_EQ(table["HK-01"]["type"], "Vmess");
  EXPECT_EQ(table["REJECT-DROP"]["type"], "RejectDrop");
  for (const auto& [name, entry] : table.items()) {
    SCOPED_TRACE(name);
    for (const char* field : {"name", "type", "alive", "history", "extra", "udp", "xudp", "tfo"}) {
      EXPECT_TRUE(entry.contains(field)) << field;
    }
    EXPECT_EQ(entry["name"], name);
    EXPECT_EQ(entry["history"], Json::array());
  }

  const HttpReply one = httpGet(url("/proxies/" + encodeSegment("a/b, c")));
  ASSERT_EQ(one.status, 200);
  EXPECT_EQ(parsed(one)["type"], "Trojan");
}

TEST_F(FakeCoreTest, SelectingAnswersWithTheCoresStatusCodesAndTexts) {
  auto core = start();
  struct Case {
    std::string group;
    std::string body;
    long status;
    std::string message;  // empty: no body expected
  };
  const std::vector<Case> cases = {
      {"Nope", "not json", 404, "Resource not found"},
      {"qev加速", R"({"name":"HK-01"})", 404, "Resource not found"},
      {"QEV加速", "", 400, "Body invalid"},
      {"QEV加速", "{\"name\":5}", 400, "Body invalid"},
      {"QEV加速", "[]", 400, "Body invalid"},
      {"HK-01", R"({"name":"HK-01"})", 400, "Must be a Selector"},
      {"Balance", R"({"name":"HK-01"})", 400, "Must be a Selector"},
      {"DIRECT", R"({"name":"DIRECT"})", 400, "Must be a Selector"},
      {"QEV加速", R"({"name":"Nope"})", 400, "Selector update error: proxy not exist"},
      {"QEV加速", R"({"name":""})", 400, "Selector update error: proxy not exist"},
      {"QEV加速", R"({"name":"a/b, c","extra":1})", 204, ""},
      {"Auto", R"({"name":"东京 02"})", 204, ""},
      {"GLOBAL", R"({"name":"QEV加速"})", 204, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.group + " " + c.body);
    const HttpReply reply = put("/proxies/" + encodeSegment(c.group), c.body);
    EXPECT_EQ(reply.status, c.status);
    if (c.message.empty()) {
      EXPECT_EQ(reply.body, "");
      EXPECT_FALSE(reply.hasHeader("content-type"));
    } else {
      EXPECT_EQ(reply.header("content-type"), "application/json");
      EXPECT_EQ(reply.body, Json({{"message", c.message}}).dump() + "\n");
    }
  }
  EXPECT_EQ(nowOf("QEV加速"), "a/b, c");
  EXPECT_EQ(nowOf("Auto"), "东京 02");
  EXPECT_EQ(nowOf("GLOBAL"), "QEV加速");
}

TEST_F(FakeCoreTest, SelectionsSurviveReloadsAndRestarts) {
  {
    auto core = start();
    ASSERT_EQ(put("/proxies/" + encodeSegment("QEV加速"), R"({"name":"东京 02"})").status, 204);
    ASSERT_EQ(put("/configs?force=true", "{}").status, 204);
    EXPECT_EQ(nowOf("QEV加速"), "东京 02");
    core->signal(SIGTERM);
    ASSERT_EQ(core->waitExit(), 0);
  }
  auto restarted = start();
  EXPECT_EQ(nowOf("QEV加速"), "东京 02");
  EXPECT_EQ(nowOf("Blocked"), "REJECT");
}

TEST_F(FakeCoreTest, DelayTestsCheckTheTimeoutAndGoThroughTheCurrentMember) {
  auto core = start();
  const std::string check = "&url=http%3A%2F%2Fwww.gstatic.com%2Fgenerate_204";
  struct Case {
    std::string path;
    long status;
    std::string body;
  };
  const std::vector<Case> cases = {
      {"/proxies/Nope/delay?timeout=6000" + check, 404, R"({"message":"Resource not found"})"},
      {"/proxies/HK-01/delay?url=x", 400, R"({"message":"Body invalid"})"},
      {"/proxies/HK-01/delay?timeout=abc" + check, 400, R"({"message":"Body invalid"})"},
      {"/proxies/HK-01/delay?timeout=32768" + check, 400, R"({"message":"Body invalid"})"},
      {"/proxies/HK-01/delay?timeout=6000" + check, 200, R"({"delay":42})"},
      {"/proxies/" + encodeSegment("QEV加速") + "/delay?timeout=32767" + check, 200,
       R"({"delay":42})"},
      {"/proxies/Blocked/delay?timeout=6000" + check, 503,
       R"({"message":"An error occurred in the delay test"})"},
      {"/proxies/HK-01/delay?timeout=6000", 503,
       R"({"message":"An error occurred in the delay test"})"},
      {"/proxies/HK-01/delay?timeout=0" + check, 504, R"({"message":"Timeout"})"},
      {"/proxies/REJECT-DROP/delay?timeout=6000" + check, 504, R"({"message":"Timeout"})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    const HttpReply reply = httpGet(url(c.path));
    EXPECT_EQ(reply.status, c.status);
    EXPECT_EQ(reply.body, c.body + "\n");
  }
  Json hk = parsed(httpGet(url("/proxies/HK-01")));
  ASSERT_FALSE(hk["history"].empty());
  EXPECT_EQ(hk["history"].back()["delay"], 0);  // the last test of HK-01 timed out
  EXPECT_EQ(hk["alive"], false);

  // Selecting the working member makes the group's test pass.
  ASSERT_EQ(put("/proxies/Blocked", R"({"name":"HK-01"})").status, 204);
  EXPECT_EQ(httpGet(url("/proxies/Blocked/delay?timeout=6000" + check)).status, 200);
}

TEST_F(FakeCoreTest, DelayKnobsFailAllTestsOrOnlyThoseThroughDeadNodes) {
  const std::string probe = "/delay?timeout=6000&url=http://www.gstatic.com/generate_204";
  const std::string group = "/proxies/" + encodeSegment("QEV加速");
  {
    auto core = start({{"FAKE_CORE_DELAY_FAIL", "timeout"}});
    const HttpReply reply = httpGet(url(group + probe));
    EXPECT_EQ(reply.status, 504);
    EXPECT_EQ(parsed(reply)["message"], "Timeout");
  }
  {
    auto core = start({{"FAKE_CORE_DELAY_FAIL", "error"}});
    EXPECT_EQ(httpGet(url(group + probe)).status, 503);
  }
  {
    auto core = start({{"FAKE_CORE_DELAY_FAIL", "东京 02"}, {"FAKE_CORE_DELAY_MS", "250"}});
    const HttpReply alive = httpGet(url(group + probe));
    EXPECT_EQ(alive.status, 200);
    EXPECT_EQ(parsed(alive)["delay"], 250);
    ASSERT_EQ(put(group, R"({"name":"东京 02"})").status, 204);
    EXPECT_EQ(httpGet(url(group + probe)).status, 504);
  }
  {
    // The file knob is read at every test, so a node can die while the core runs.
    const auto knob = dir_.path() / "dead-nodes";
    auto core = start({{"FAKE_CORE_DELAY_FAIL_FILE", knob.string()}});
    EXPECT_EQ(httpGet(url(group + probe)).status, 200);
    writeText(knob, "error:HK-01,东京 02\n");
    EXPECT_EQ(httpGet(url(group + probe)).status, 503);
  }
}

TEST_F(FakeCoreTest, RefuseSelectKnobRefusesMembersButKeepsTheEarlierChecks) {
  auto core = start({{"FAKE_CORE_REFUSE_SELECT", "1"}});
  const HttpReply refused = put("/proxies/" + encodeSegment("QEV加速"), R"({"name":"东京 02"})");
  EXPECT_EQ(refused.status, 400);
  EXPECT_EQ(parsed(refused)["message"], "Selector update error: proxy not exist");
  EXPECT_EQ(put("/proxies/Nope", R"({"name":"HK-01"})").status, 404);
  EXPECT_EQ(parsed(put("/proxies/HK-01", R"({"name":"HK-01"})"))["message"], "Must be a Selector");
  EXPECT_EQ(put("/proxies/" + encodeSegment("QEV加速"), "").status, 400);
  // Nothing was selected, nor remembered for the next start.
  EXPECT_EQ(nowOf("QEV加速"), "HK-01");
  EXPECT_FALSE(std::filesystem::exists(home_ / "cache.db"));
}

TEST_F(FakeCoreTest, ConfigsReloadPatchAndReport) {
  auto core = start();
  Json general = parsed(httpGet(url("/configs")));
  EXPECT_EQ(general["port"], 33210);
  EXPECT_EQ(general["socks-port"], 33211);
  EXPECT_EQ(general["mixed-port"], 0);
  EXPECT_EQ(general["mode"], "rule");
  EXPECT_EQ(general["allow-lan"], false);
  EXPECT_EQ(general["ipv6"], true);
  EXPECT_EQ(general["log-level"], "info");
  EXPECT_EQ(general["tun"]["enable"], false);

  EXPECT_EQ(patch("/configs", R"({"mode":"GLOBAL","unknown":1})").status, 204);
  EXPECT_EQ(parsed(httpGet(url("/configs")))["mode"], "global");
  // An invalid mode refuses the whole body: the port stays as it was.
  const HttpReply invalid = patch("/configs", R"({"mode":"everything","port":33213})");
  EXPECT_EQ(invalid.status, 400);
  EXPECT_EQ(parsed(invalid)["message"], "Body invalid");
  EXPECT_EQ(parsed(httpGet(url("/configs")))["port"], 33210);
  EXPECT_EQ(patch("/configs", "").status, 400);
  EXPECT_EQ(patch("/configs", R"({"port":"33210"})").status, 400);

  // A reload without force keeps the listeners and goes back to the file's mode.
  writeText(config_, std::string(kConfig) + "ipv6: false\n");
  EXPECT_EQ(put("/configs", R"({"port":33210,"socks-port":33211})").status, 204);
  general = parsed(httpGet(url("/configs")));
  EXPECT_EQ(general["mode"], "rule");
  EXPECT_EQ(general["ipv6"], false);

  const HttpReply relative = put("/configs", R"({"path":"runtime.yaml"})");
  EXPECT_EQ(relative.status, 400);
  EXPECT_EQ(parsed(relative)["message"], "path is not a absolute path");
  EXPECT_EQ(put("/configs", "").status, 400);
  EXPECT_EQ(put("/configs", R"({"path":7})").status, 400);

  // A refused file or payload changes nothing.
  writeText(config_, "mode: nonsense\n");
  const HttpReply broken = put("/configs?force=true", "{}");
  EXPECT_EQ(broken.status, 400);
  EXPECT_EQ(parsed(broken)["message"], "invalid mode");
  const HttpReply badPayload =
      put("/configs", Json({{"payload", "rules:\n  - MATCH,Nowhere\n"}}).dump());
  EXPECT_EQ(badPayload.status, 400);
  EXPECT_EQ(parsed(badPayload)["message"],
            "rules[0] [MATCH,Nowhere] error: proxy [Nowhere] not found");
  EXPECT_TRUE(parsed(httpGet(url("/proxies")))["proxies"].contains("QEV加速"));

  // A payload replaces the proxies; force moves the listeners.
  const std::string payload =
      "port: 33213\nexternal-controller: 127.0.0.1:33212\n"
      "tun:\n  enable: true\n  stack: system\n  dns-hijack:\n    - any:53\n"
      "proxies:\n  - {name: P1, type: socks5, server: s, port: 1}\n";
  EXPECT_EQ(put("/configs?force=true", Json({{"payload", payload}}).dump()).status, 204);
  Json table = parsed(httpGet(url("/proxies")))["proxies"];
  EXPECT_TRUE(table.contains("P1"));
  EXPECT_FALSE(table.contains("QEV加速"));
  general = parsed(httpGet(url("/configs")));
  EXPECT_EQ(general["port"], 33213);
  EXPECT_EQ(general["socks-port"], 0);
  EXPECT_EQ(general["tun"]["enable"], true);
  EXPECT_EQ(general["tun"]["stack"], "System");
  EXPECT_EQ(general["tun"]["dns-hijack"], Json::array({"any:53"}));
}

TEST_F(FakeCoreTest, RoutingConventionsAndRequestLog) {
  const auto log = dir_.path() / "requests.jsonl";
  auto core = start({{"FAKE_CORE_REQUEST_LOG", log.string()}});
  const HttpReply hello = httpGet(url("/"));
  EXPECT_EQ(hello.body, "{\"hello\":\"mihomo\"}\n");

  const HttpReply unknown = httpGet(url("/nowhere"));
  EXPECT_EQ(unknown.status, 404);
  EXPECT_EQ(unknown.header("content-type"), "text/plain; charset=utf-8");
  const HttpReply wrongMethod = http(HttpCall{"POST", url("/proxies"), "{}", {}});
  EXPECT_EQ(wrongMethod.status, 405);
  EXPECT_EQ(wrongMethod.body, "");
  const HttpReply closed = http(HttpCall{"DELETE", url("/connections"), std::nullopt, {}});
  EXPECT_EQ(closed.status, 204);
  EXPECT_FALSE(closed.hasHeader("content-type"));

  const HttpReply cors = httpGet(url("/"), {"Origin: http://example.test"});
  EXPECT_EQ(cors.header("access-control-allow-origin"), "*");
  const HttpReply preflight =
      http(HttpCall{"OPTIONS",
                    url("/configs"),
                    std::nullopt,
                    {"Origin: http://example.test", "Access-Control-Request-Method: PATCH",
                     "Access-Control-Request-Private-Network: true"}});
  EXPECT_EQ(preflight.status, 204);
  EXPECT_EQ(preflight.header("access-control-allow-methods"), "PATCH");
  EXPECT_EQ(preflight.header("access-control-allow-private-network"), "true");

  ASSERT_TRUE(waitUntil([&] { return lines(readText(log)).size() >= 6; }));
  std::vector<Json> posts;
  for (const auto& line : lines(readText(log))) {
    const Json entry = Json::parse(line);
    if (entry["method"] == "POST") posts.push_back(entry);
  }
  ASSERT_EQ(posts.size(), 1u);
  EXPECT_EQ(posts[0]["path"], "/proxies");
  EXPECT_EQ(posts[0]["body"], "{}");
}

TEST_F(FakeCoreTest, SecretNeedsBearerHeaderOnEveryRoute) {
  writeText(config_, std::string(kConfig) + "secret: s3cret\n");
  auto core = start();
  const HttpReply missing = httpGet(url("/proxies"));
  EXPECT_EQ(missing.status, 401);
  EXPECT_EQ(missing.body, "{\"message\":\"Unauthorized\"}\n");
  EXPECT_EQ(httpGet(url("/"), {"Authorization: s3cret"}).status, 401);
  EXPECT_EQ(httpGet(url("/"), {"Authorization: Bearer wrong"}).status, 401);
  EXPECT_EQ(httpGet(url("/configs"), {"Authorization: Bearer s3cret"}).status, 200);
  EXPECT_EQ(httpGet(url("/nowhere")).status, 404);

  // -secret overrides the file.
  core.reset();
  ASSERT_TRUE(
      waitUntil([] { return portFree(33210) && portFree(33211) && portFree(33212); }, 120s));
  auto overridden = launch({"-d", home_.string(), "-f", config_.string(), "-secret", "other"});
  ASSERT_TRUE(
      waitUntil([&] { return contains(overridden->stdoutText(), "RESTful API listening"); }));
  EXPECT_EQ(httpGet(url("/"), {"Authorization: Bearer s3cret"}).status, 401);
  EXPECT_EQ(httpGet(url("/"), {"Authorization: Bearer other"}).status, 200);
}

// A plain listening socket on 127.0.0.1:port, closed on destruction.
class PortBlocker {
 public:
  explicit PortBlocker(int port) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int yes = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    ok_ = bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
          listen(fd_, 4) == 0;
  }
  ~PortBlocker() { close(fd_); }
  bool ok() const { return ok_; }

 private:
  int fd_ = -1;
  bool ok_ = false;
};

TEST_F(FakeCoreTest, PortsInUseAreLoggedAndTheCoreKeepsRunning) {
  const auto configured = [](ChildProcess& core) {
    return waitUntil([&] {
      return contains(core.stdoutText(), "Initial configuration complete") || !core.running();
    });
  };
  {
    PortBlocker http(33210);
    ASSERT_TRUE(http.ok());
    auto core = launchOnFreePorts({}, {33211, 33212});
    ASSERT_TRUE(configured(*core));
    ASSERT_TRUE(contains(core->stdoutText(), "RESTful API listening")) << core->stdoutText();
    EXPECT_EQ(parsed(httpGet(url("/configs")))["port"], 0);
    EXPECT_EQ(parsed(httpGet(url("/configs")))["socks-port"], 33211);
    EXPECT_TRUE(contains(core->stdoutText(),
                         "level=error msg=\"Start HTTP server error: listen tcp 127.0.0.1:33210: "
                         "bind: address already in use\""));
  }
  PortBlocker controller(33212);
  ASSERT_TRUE(controller.ok());
  auto core = launchOnFreePorts({}, {33210, 33211});
  ASSERT_TRUE(configured(*core));
  EXPECT_TRUE(contains(core->stdoutText(),
                       "External controller listen error: listen tcp 127.0.0.1:33212: bind: "
                       "address already in use"));
  EXPECT_TRUE(core->running());
  core->signal(SIGTERM);
  EXPECT_EQ(core->waitExit(), 0);
}

TEST_F(FakeCoreTest, SignalsEndCleanlyOrReload) {
  for (int sig : {SIGTERM, SIGINT}) {
    auto core = start();
    core->signal(sig);
    EXPECT_EQ(core->waitExit(), 0);
    EXPECT_EQ(core->stderrText(), "");
  }
  const auto configLog = dir_.path() / "configs.jsonl";
  auto core = start({{"FAKE_CORE_CONFIG_LOG", configLog.string()}});
  std::string changed = kConfig;
  changed.replace(changed.find("mode: rule"), 10, "mode: global");
  writeText(config_, changed);
  core->signal(SIGHUP);
  ASSERT_TRUE(waitUntil([&] { return parsed(httpGet(url("/configs")))["mode"] == "global"; }));
  ASSERT_TRUE(waitUntil([&] { return lines(readText(configLog)).size() == 2; }));
  Json reload = Json::parse(lines(readText(configLog))[1]);
  EXPECT_EQ(reload["event"], "sighup");
  EXPECT_EQ(reload["path"], config_.string());
  EXPECT_NE(reload["text"].get<std::string>().find("mode: global"), std::string::npos);
  EXPECT_EQ(reload["argv"][0], "clash.mihomo");
}

TEST_F(FakeCoreTest, RunsBehindTheLauncherUnderTheCoresProcessName) {
  const std::string launcher = std::string(kSourceDir) + "/libs/linux/clash";
  ASSERT_TRUE(std::filesystem::exists(launcher));
  ASSERT_TRUE(
      waitUntil([] { return portFree(33210) && portFree(33211) && portFree(33212); }, 120s));
  ChildProcess core(ChildProcess::Options{launcher,
                                          {"-d", home_.string(), "-f", config_.string()},
                                          "",
                                          {{"QEV_MIHOMO", kFakeCore}},
                                          dir_.path()});
  ASSERT_TRUE(waitUntil([&] {
    return contains(core.stdoutText(), "Initial configuration complete");
  })) << core.stdoutText()
      << core.stderrText();
  // The launcher replaced itself: same process, now named clash.mihomo.
  std::string cmdline = readText("/proc/" + std::to_string(core.pid()) + "/cmdline");
  std::replace(cmdline.begin(), cmdline.end(), '\0', ' ');
  EXPECT_EQ(cmdline, "clash.mihomo -d " + home_.string() + " -f " + config_.string() + " ");
  EXPECT_EQ(parsed(httpGet(url("/")))["hello"], "mihomo");
  core.signal(SIGTERM);
  EXPECT_EQ(core.waitExit(), 0);
}

TEST_F(FakeCoreTest, StartupKnobsDelayOrEndTheCore) {
  auto noisy = launch({"-d", home_.string(), "-f", config_.string()},
                      {{"FAKE_CORE_EXIT_AT_START", "3"}, {"FAKE_CORE_STDERR_BYTES", "5000"}});
  EXPECT_EQ(noisy->waitExit(), 3);
  const std::string err = noisy->stderrText();
  ASSERT_EQ(err.size(), 5000u);
  EXPECT_EQ(err.substr(0, 12), "012345678901");

  auto said = launch({"-d", home_.string(), "-f", config_.string()},
                     {{"FAKE_CORE_EXIT_AT_START", "1"}, {"FAKE_CORE_STDERR", "boom"}});
  EXPECT_EQ(said->waitExit(), 1);
  EXPECT_EQ(said->stderrText(), "boom");

  auto slow = launchOnFreePorts({{"FAKE_CORE_START_DELAY_MS", "1000"}});
  ASSERT_TRUE(
      waitUntil([&] { return slow->stdoutText().find("in progress") != std::string::npos; }));
  EXPECT_EQ(httpGet(url("/")).status, 0);
  EXPECT_TRUE(waitUntil([&] { return httpGet(url("/")).status == 200; }));
  slow.reset();

  // Between listening and applying, the controller answers with an empty table.
  auto gap = launchOnFreePorts({{"FAKE_CORE_APPLY_DELAY_MS", "1000"}});
  ASSERT_TRUE(waitUntil([&] { return contains(gap->stdoutText(), "RESTful API listening"); }));
  EXPECT_EQ(parsed(httpGet(url("/proxies"))), Json({{"proxies", Json::object()}}));
  EXPECT_EQ(put("/proxies/GLOBAL", R"({"name":"DIRECT"})").status, 404);
  EXPECT_TRUE(
      waitUntil([&] { return parsed(httpGet(url("/proxies")))["proxies"].contains("GLOBAL"); }));
}

TEST_F(FakeCoreTest, HangingControllerAcceptsButNeverAnswers) {
  const auto log = dir_.path() / "requests.jsonl";
  auto core = launchOnFreePorts(
      {{"FAKE_CORE_HANG_CONTROLLER", "1"}, {"FAKE_CORE_REQUEST_LOG", log.string()}});
  ASSERT_TRUE(waitUntil(
      [&] { return core->stdoutText().find("RESTful API listening") != std::string::npos; }));
  const HttpReply reply = http(HttpCall{"GET", url("/"), std::nullopt, {}, 300ms});
  EXPECT_EQ(reply.status, 0);
  EXPECT_TRUE(waitUntil([&] { return !readText(log).empty(); }));
  core->signal(SIGTERM);
  EXPECT_EQ(core->waitExit(), 0);
}

}  // namespace
}  // namespace qev::test
