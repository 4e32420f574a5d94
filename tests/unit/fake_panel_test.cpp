// Checks the test panel against what both panel generations answer (panel-api.md), and that
// its subscription, once rewritten by qev, is a configuration the test core accepts.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "../support/testing/doubles_harness.h"
#include "base/json.h"
#include "subscription/runtime_config_text.h"
#include "temp_home.h"
#include "test_config.h"

namespace qev::test {
namespace {

using namespace doubles;

constexpr const char* kToken = "5f3c9a7e2b1d4c8f9a6e3b2d1c4f7a9e";
constexpr const char* kLoggedOut = "未登录或登陆已过期";

Json parsed(const HttpReply& reply) {
  return Json::parse(reply.body, nullptr, false);
}

// The error body of a generation: v1 {"message"}, v2 the fail envelope.
Json errorShape(const std::string& generation, const std::string& message) {
  if (generation == "v1") return {{"message", message}};
  return {{"status", "fail"}, {"message", message}, {"data", nullptr}, {"error", nullptr}};
}

std::string decodeBase64(const std::string& text) {
  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  int buffer = 0;
  int bits = 0;
  for (char c : text) {
    const auto value = alphabet.find(c);
    if (value == std::string::npos) continue;
    buffer = (buffer << 6) | static_cast<int>(value);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((buffer >> bits) & 0xff));
    }
  }
  return out;
}

class FakePanel {
 public:
  FakePanel(const std::filesystem::path& outputDir, std::vector<std::string> args)
      : process_(ChildProcess::Options{kFakePanel, std::move(args), "", {}, outputDir}) {
    waitUntil([this] {
      return process_.stdoutText().find('\n') != std::string::npos || !process_.running();
    });
    const std::string out = process_.stdoutText();
    if (out.rfind("port=", 0) == 0) port_ = std::stoi(out.substr(5));
  }

  int port() const { return port_; }
  std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::string url(const std::string& path) const { return base() + path; }
  ChildProcess& process() { return process_; }

  HttpReply get(const std::string& path, std::vector<std::string> headers = {}) const {
    return httpGet(url(path), std::move(headers));
  }
  HttpReply post(const std::string& path, const std::string& body,
                 std::vector<std::string> headers = {}) const {
    return http(HttpCall{"POST", url(path), body, std::move(headers)});
  }
  Json control(const Json& changes) const {
    return parsed(post("/__control", changes.dump(), {"Content-Type: application/json"}));
  }
  // Logs the demo account in and returns auth_data.
  std::string login() const {
    const HttpReply reply =
        post("/api/v1/passport/auth/login", "email=demo%40qev.test&password=demo-password",
             {"Content-Type: application/x-www-form-urlencoded"});
    return parsed(reply)["data"]["auth_data"].get<std::string>();
  }

 private:
  ChildProcess process_;
  int port_ = 0;
};

class FakePanelTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_STRNE(kFakePanel, "") << "fake_panel was not built"; }

  std::unique_ptr<FakePanel> startPanel(std::vector<std::string> args = {}) {
    auto panel = std::make_unique<FakePanel>(dir_.path(), std::move(args));
    EXPECT_GT(panel->port(), 0) << panel->process().stderrText();
    return panel;
  }

  TempDir dir_;
};

TEST_F(FakePanelTest, PrintsItsPortFirstAndEndsCleanly) {
  auto panel = startPanel();
  EXPECT_EQ(panel->process().stdoutText(), "port=" + std::to_string(panel->port()) + "\n");
  EXPECT_EQ(panel->get("/api/v1/guest/comm/config").status, 200);
  panel->process().signal(SIGTERM);
  EXPECT_EQ(panel->process().waitExit(), 0);

  FakePanel bad(dir_.path(), {"--generation", "v3"});
  EXPECT_EQ(bad.process().waitExit(), 2);
  EXPECT_NE(bad.process().stderrText().find("--generation takes v1 or v2"), std::string::npos);
}

TEST_F(FakePanelTest, SubscriptionHasEachGenerationsShapeAndHeaders) {
  for (const std::string generation : {"v1", "v2"}) {
    SCOPED_TRACE(generation);
    auto panel = startPanel({"--generation", generation});
    const std::string path = std::string("/api/v1/client/subscribe?token=") + kToken;
    const HttpReply reply = panel->get(path + "&flag=clash.meta");
    ASSERT_EQ(reply.status, 200);
    EXPECT_EQ(reply.header("subscription-userinfo"),
              "upload=1288490189; download=1224065679; total=107374182400; expire=1798646400");
    EXPECT_EQ(reply.header("profile-update-interval"), "24");
    EXPECT_EQ(reply.header("content-disposition"),
              "attachment;filename*=UTF-8''%E6%98%9F%E6%B2%B3%E4%BA%91");
    EXPECT_EQ(reply.header("content-type") == "text/yaml", generation == "v2");

    const std::string& text = reply.body;
    EXPECT_NE(text.find("proxies:\n    - { name: '剩余流量：97.66 GB', type: vmess, "),
              std::string::npos);
    EXPECT_NE(text.find("    - { name: '距离下次重置剩余：12 天', "), std::string::npos);
    EXPECT_NE(text.find("    - { name: 套餐到期：2026-12-31, "), std::string::npos);
    EXPECT_NE(text.find("    - { name: 'US West 03', type: ss, "), std::string::npos);
    EXPECT_NE(
        text.find("    - { name: 星河云, type: select, proxies: [自动选择, 故障转移, DIRECT, "),
        std::string::npos);
    EXPECT_NE(text.find("    - { name: 自动选择, type: url-test, "), std::string::npos);
    EXPECT_NE(text.find("    - { name: 故障转移, type: fallback, "), std::string::npos);
    EXPECT_NE(
        text.find("    - { name: QEV加速, type: select, proxies: [香港01, 日本02, 'US West 03'"),
        std::string::npos);
    EXPECT_NE(text.find("    - 'MATCH,星河云'\n"), std::string::npos);
    EXPECT_NE(text.find("\ndns:\n    enable: true\n"), std::string::npos);
    const bool reality = text.find("type: vless") != std::string::npos &&
                         text.find("tls: true") != std::string::npos &&
                         text.find("reality-opts: { ") != std::string::npos;
    EXPECT_EQ(reality, generation == "v2");
    EXPECT_EQ(text.find("type: anytls") != std::string::npos, generation == "v2");

    // The short link exists on v2 panels only; there a query token wins over the path.
    const HttpReply shortLink = panel->get(std::string("/s/") + kToken, {"User-Agent: clash.meta"});
    EXPECT_EQ(shortLink.status, generation == "v2" ? 200 : 404);
    if (generation == "v2") {
      EXPECT_EQ(shortLink.body, text);
      EXPECT_EQ(panel->get("/s/unknown?token=" + std::string(kToken) + "&flag=meta").status, 200);
    }

    const HttpReply unknown = panel->get("/api/v1/client/subscribe?token=nope");
    EXPECT_EQ(unknown.status, 403);
    EXPECT_EQ(parsed(unknown), errorShape(generation, "token is error"));
    const HttpReply missing = panel->get("/api/v1/client/subscribe");
    EXPECT_EQ(missing.status, 403);
    EXPECT_EQ(parsed(missing), errorShape(generation, "token is null"));

    // Without "meta": the older format without the newer node types, or share links.
    const std::string classic = panel->get(path, {"User-Agent: ClashForAndroid/2.5"}).body;
    EXPECT_NE(classic.find("proxy-groups:"), std::string::npos);
    EXPECT_EQ(classic.find("type: vless"), std::string::npos);
    const std::string links = decodeBase64(panel->get(path, {"User-Agent: curl"}).body);
    EXPECT_NE(links.find("ss://"), std::string::npos);
    EXPECT_NE(links.find("trojan://"), std::string::npos);
  }
}

TEST_F(FakePanelTest, RewrittenSubscriptionIsAcceptedByTheTestCore) {
  for (const std::string generation : {"v1", "v2"}) {
    auto panel = startPanel({"--generation", generation});
    const std::string raw =
        panel->get(std::string("/api/v1/client/subscribe?token=") + kToken + "&flag=clash.meta")
            .body;
    const std::vector<std::pair<std::string, std::string>> texts = {
        {"raw", raw},
        {"rule", subscription::buildRuntimeConfigText(raw, "rule", false)},
        {"tun", subscription::buildRuntimeConfigText(raw, "global", true)}};
    for (const auto& [label, text] : texts) {
      SCOPED_TRACE(generation + " " + label);
      const auto file = dir_.path() / (generation + "-" + label + ".yaml");
      writeText(file, text);
      ChildProcess core(
          ChildProcess::Options{kFakeCore,
                                {"-d", (dir_.path() / "core").string(), "-f", file.string(), "-t"},
                                "",
                                {},
                                dir_.path()});
      EXPECT_EQ(core.waitExit(), 0) << core.stdoutText() << text;
      if (label != "raw") {
        // The rewriting did take out the hidden groups and pseudo-nodes the core now lacks.
        EXPECT_EQ(text.find("自动选择"), std::string::npos);
        EXPECT_EQ(text.find("剩余流量"), std::string::npos);
      }
    }
    // The panel's own host is routed DIRECT first, as panels do.
    EXPECT_NE(raw.find("rules:\n    - 'DOMAIN,127.0.0.1,DIRECT'\n"), std::string::npos);
  }
}

TEST_F(FakePanelTest, LoginAnswersInEachGenerationsShape) {
  for (const std::string generation : {"v1", "v2"}) {
    SCOPED_TRACE(generation);
    auto panel = startPanel({"--generation", generation});
    const std::string login = "/api/v1/passport/auth/login";

    const HttpReply ok =
        panel->post(login, R"({"email":"Demo@qev.test","password":"demo-password"})",
                    {"Content-Type: application/json"});
    ASSERT_EQ(ok.status, 200);
    EXPECT_EQ(ok.body.find("操作成功"), std::string::npos);  // non-ASCII travels as \u escapes
    Json body = parsed(ok);
    EXPECT_EQ(body["data"]["token"], kToken);
    const std::string authData = body["data"]["auth_data"].get<std::string>();
    if (generation == "v1") {
      EXPECT_EQ(body.size(), 1u);
      EXPECT_EQ(body["data"]["is_admin"], 0);
      EXPECT_EQ(authData.rfind("eyJ", 0), 0u);
      EXPECT_EQ(std::count(authData.begin(), authData.end(), '.'), 2);
    } else {
      EXPECT_EQ(body["status"], "success");
      EXPECT_EQ(body["message"], "操作成功");
      EXPECT_EQ(body["error"], nullptr);
      EXPECT_EQ(body["data"]["is_admin"], false);
      ASSERT_EQ(authData.rfind("Bearer ", 0), 0u);
      EXPECT_EQ(authData.size(), 7u + 40u);
    }

    const HttpReply wrong = panel->post(login, "email=demo%40qev.test&password=wrong-password");
    EXPECT_EQ(wrong.status, generation == "v1" ? 500 : 400);
    EXPECT_EQ(parsed(wrong), errorShape(generation, "邮箱或密码错误"));

    const HttpReply shortPassword = panel->post(login, "email=demo%40qev.test&password=short");
    EXPECT_EQ(shortPassword.status, 422);
    EXPECT_EQ(parsed(shortPassword), Json({{"message", "密码必须大于8位数"},
                                           {"errors", {{"password", {"密码必须大于8位数"}}}}}));
    const HttpReply noEmail = panel->post(login, "password=demo-password");
    EXPECT_EQ(noEmail.status, 422);
    EXPECT_EQ(parsed(noEmail)["errors"]["email"], Json::array({"邮箱不能为空"}));

    panel->control({{"banned", true}});
    const HttpReply banned = panel->post(login, "email=demo%40qev.test&password=demo-password");
    EXPECT_EQ(banned.status, generation == "v1" ? 500 : 400);
    EXPECT_EQ(parsed(banned)["message"], "该账户已被停止使用");
    panel->control({{"banned", false}, {"rate_limited", true}});
    const HttpReply limited = panel->post(login, "email=demo%40qev.test&password=demo-password");
    EXPECT_EQ(limited.status, generation == "v1" ? 500 : 429);
    EXPECT_EQ(parsed(limited)["message"], "密码错误次数过多，请 60 分钟后再试");
  }
}

TEST_F(FakePanelTest, CredentialsAreReadAsEachGenerationReadsThem) {
  {
    auto panel = startPanel({"--generation", "v1"});
    const std::string jwt = panel->login();
    const HttpReply reply = panel->get("/api/v1/user/getSubscribe", {"Authorization: " + jwt});
    ASSERT_EQ(reply.status, 200);
    EXPECT_NE(reply.body.find("http:\\/\\/127.0.0.1:"), std::string::npos);  // "/" escaped
    Json data = parsed(reply)["data"];
    EXPECT_EQ(data["subscribe_url"],
              panel->base() + "/api/v1/client/subscribe?token=" + std::string(kToken));
    EXPECT_EQ(data["transfer_enable"], 107374182400LL);
    EXPECT_EQ(data["reset_day"], 12);
    EXPECT_EQ(data["plan"]["name"], "标准套餐");
    EXPECT_FALSE(data.contains("device_limit"));
    EXPECT_EQ(panel->get("/api/v1/user/info?auth_data=" + jwt).status, 200);

    const HttpReply bearer = panel->get("/api/v1/user/info", {"Authorization: Bearer " + jwt});
    EXPECT_EQ(bearer.status, 403);
    EXPECT_EQ(parsed(bearer), errorShape("v1", kLoggedOut));
  }
  auto panel = startPanel({"--generation", "v2", "--subscribe-base", "https://sub.qev.test"});
  const std::string authData = panel->login();
  const std::string header = "Authorization: " + authData;
  const HttpReply reply = panel->get("/api/v1/user/getSubscribe", {header});
  ASSERT_EQ(reply.status, 200);
  Json data = parsed(reply)["data"];
  EXPECT_EQ(data["subscribe_url"], "https://sub.qev.test/s/" + std::string(kToken));
  EXPECT_TRUE(data.contains("device_limit"));
  EXPECT_TRUE(data.contains("next_reset_at"));
  EXPECT_EQ(parsed(panel->get("/api/v1/user/checkLogin", {header}))["data"]["is_login"], true);
  EXPECT_EQ(parsed(panel->get("/api/v1/user/info", {header}))["data"]["email"], "demo@qev.test");

  const HttpReply bare = panel->get("/api/v1/user/info", {"Authorization: " + authData.substr(7)});
  EXPECT_EQ(bare.status, 403);
  EXPECT_EQ(parsed(bare), errorShape("v2", kLoggedOut));
  EXPECT_EQ(panel->get("/api/v1/user/checkLogin").status, 403);
  panel->control({{"logout_all", true}});
  EXPECT_EQ(panel->get("/api/v1/user/getSubscribe", {header}).status, 403);
}

TEST_F(FakePanelTest, UnusableAccountGetsAnEmptySubscription) {
  const std::string path = std::string("/api/v1/client/subscribe?token=") + kToken + "&flag=meta";
  auto v1 = startPanel({"--generation", "v1", "--unusable"});
  const HttpReply old = v1->get(path);
  EXPECT_EQ(old.status, 200);
  EXPECT_EQ(old.body, "");
  auto v2 = startPanel({"--generation", "v2"});
  EXPECT_EQ(v2->get(path).status, 200);
  v2->control({{"unusable", true}});
  const HttpReply refused = v2->get(path);
  EXPECT_EQ(refused.status, 403);
  EXPECT_EQ(refused.body, "");
  EXPECT_EQ(refused.header("content-type"), "text/plain");
}

TEST_F(FakePanelTest, OtherRoutesAndTestEndpoints) {
  auto panel = startPanel();
  EXPECT_EQ(panel->get("/api/v1/client/update").status, 404);
  EXPECT_EQ(panel->get("/api/v1/guest/report/fake").status, 404);
  Json config = parsed(panel->get("/api/v1/guest/comm/config"))["data"];
  for (const char* key :
       {"tos_url", "is_email_verify", "is_invite_force", "email_whitelist_suffix", "is_recaptcha",
        "recaptcha_site_key", "app_description", "app_url", "logo"}) {
    EXPECT_TRUE(config.contains(key)) << key;
  }
  const HttpReply version =
      panel->get("/api/v1/client/app/getVersion?token=" + std::string(kToken));
  EXPECT_EQ(parsed(version)["data"]["macos_version"], "5.2.0");
  EXPECT_EQ(parsed(version)["data"]["windows_version"], nullptr);
  EXPECT_EQ(parsed(panel->get("/api/v1/client/app/getVersion")), errorShape("v2", "token is null"));
  EXPECT_EQ(panel->get("/api/v1/passport/auth/login").status, 405);

  Json requests = parsed(panel->get("/__requests"));
  ASSERT_EQ(requests.size(), 6u);
  EXPECT_EQ(requests[0]["path"], "/api/v1/client/update");
  EXPECT_EQ(requests[3]["query"]["token"], kToken);
  EXPECT_EQ(requests[3]["headers"]["host"], "127.0.0.1:" + std::to_string(panel->port()));
  panel->post("/api/v1/passport/auth/login", "email=a%40b.c&password=x", {"X-Probe: 1"});
  Json last = parsed(panel->get("/__requests")).back();
  EXPECT_EQ(last["method"], "POST");
  EXPECT_EQ(last["body"], "email=a%40b.c&password=x");
  EXPECT_EQ(last["headers"]["x-probe"], "1");
  EXPECT_EQ(last["query"], Json::object());
  EXPECT_EQ(http(HttpCall{"DELETE", panel->url("/__requests"), std::nullopt, {}}).status, 204);
  EXPECT_EQ(parsed(panel->get("/__requests")), Json::array());

  EXPECT_EQ(panel->post("/__control", R"({"colour":"red"})").status, 400);
  EXPECT_EQ(panel->control({{"delay_ms", 3000}})["delay_ms"], 3000);
  const HttpReply slow = http(HttpCall{"GET",
                                       panel->url("/api/v1/guest/comm/config"),
                                       std::nullopt,
                                       {},
                                       std::chrono::milliseconds(200)});
  EXPECT_EQ(slow.status, 0);
  // The slow request is logged on arrival, before its answer.
  EXPECT_EQ(parsed(panel->get("/__requests")).size(), 1u);
}

}  // namespace
}  // namespace qev::test
