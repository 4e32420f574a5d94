// The page's HTTP relay against the test panel and the test core over loopback: what reaches
// them, what the page gets back, what is remembered and what the log shows. The core runs on
// the fixed controller port.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/executors.h"
#include "base/json.h"
#include "base/strings.h"
#include "bridge/diagnostic_log.h"
#include "controller/controller_client.h"
#include "net/http_session.h"
#include "qev/deployment.h"
#include "relay/http_relay.h"
#include "storage/profile.h"
#include "storage/selection_memory.h"
#include "storage/settings_store.h"
#include "temp_home.h"
#include "test_config.h"
#include "test_processes.h"

namespace qev::test {
namespace {

using namespace doubles;
using namespace std::chrono_literals;

constexpr const char* kDemoEmail = "demo@qev.test";

constexpr const char* kCoreConfig = R"(external-controller: 127.0.0.1:33212
mode: rule
proxies:
    - { name: HK-01, type: ss, server: a.example.com, port: 443, cipher: aes-128-gcm, password: p }
    - { name: JP-02, type: ss, server: b.example.com, port: 443, cipher: aes-128-gcm, password: p }
proxy-groups:
    - { name: QEV加速, type: select, proxies: [HK-01, JP-02] }
rules:
    - 'MATCH,QEV加速'
)";

struct Outcome {
  std::optional<Json> reply;
  std::optional<BridgeError> error;
};

class RelayHttpTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_STRNE(kFakePanel, "") << "fake_panel was not built";
    panelDir_ = new TempDir();
    panel_ = new PanelProcess(panelDir_->path());
  }
  static void TearDownTestSuite() {
    delete panel_;
    delete panelDir_;
  }

  void SetUp() override {
    ASSERT_GT(panel_->port(), 0) << "the test panel did not report its port";
    panel_->forgetRequests();
    panel_->control({{"generation", "v2"}});
    std::filesystem::create_directories(paths_.appSupport);
    settings_.ensureLocalSettings();
  }

  void TearDown() override { session_.stop(); }

  Outcome call(const Json& args) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    auto future = promise->get_future();
    relay_.nativeHttpRequest(
        args,
        [promise](Json reply) {
          promise->set_value({std::move(reply), std::nullopt});
        },
        [promise](BridgeError error) {
          promise->set_value({std::nullopt, std::move(error)});
        });
    if (future.wait_for(30s) != std::future_status::ready) return {};
    return future.get();
  }
  Outcome request(const Json& record) { return call(Json::array({record})); }

  std::string logText() const { return readText(log_.file()); }

  static std::string panelUrl(const std::string& path) { return panel_->base() + path; }

  static inline TempDir* panelDir_ = nullptr;
  static inline PanelProcess* panel_ = nullptr;

  TempDir dir_;
  storage::Paths paths_ = storage::Profile::forLinux(environmentIn(dir_.path())).paths;
  bridge::DiagnosticLog log_{paths_.log};
  storage::SelectionMemory selection_;
  storage::SettingsStore settings_{paths_, selection_, log_};
  base::Executors executors_{2};
  net::HttpSession session_{executors_};
  controller::ControllerClient controller_{session_, log_, kController};
  relay::HttpRelay relay_{session_, controller_, settings_, log_, panel_ ? panel_->base() : ""};
};

TEST_F(RelayHttpTest, PostCarriesHeadersAndUtf8BodyAndLoginRepliesGetOneShape) {
  const std::string body =
      Json{{"email", kDemoEmail}, {"password", kDemoPassword}, {"remark", "加速 ✓"}}.dump();
  for (const std::string generation : {"v1", "v2"}) {
    SCOPED_TRACE(generation);
    panel_->control({{"generation", generation}});
    panel_->forgetRequests();
    const Outcome out = request({{"method", "POST"},
                                 {"url", panelUrl("/api/v1/passport/auth/login")},
                                 {"headers",
                                  {{"Content-Type", "application/json"},
                                   {"Content-Language", "zh-CN"},
                                   {"X-Client", "qev"}}},
                                 {"body", body}});
    ASSERT_TRUE(out.reply) << (out.error ? out.error->description : "no answer");
    EXPECT_EQ((*out.reply)["status"], 200);

    const Json sent = panel_->requests();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0]["method"], "POST");
    EXPECT_EQ(sent[0]["body"], body);  // byte for byte, UTF-8 included
    EXPECT_EQ(sent[0]["headers"]["content-type"], "application/json");
    EXPECT_EQ(sent[0]["headers"]["x-client"], "qev");

    const Json reply = Json::parse((*out.reply)["body"].get<std::string>());
    EXPECT_EQ(reply["status"], "success");
    EXPECT_EQ(reply["ret"], 1);
    EXPECT_EQ(reply["code"], 0);
    EXPECT_EQ(reply["is_admin"], false);
    EXPECT_EQ(reply["data"]["token"], kDemoToken);
    const std::string authData = reply["data"]["auth_data"];
    EXPECT_EQ(authData.rfind("Bearer ", 0) == 0, generation == "v2") << authData;
    EXPECT_EQ(logText().find(authData), std::string::npos) << "credential in the log";
  }
  const std::string log = logText();
  EXPECT_NE(log.find("native.login.response: "), std::string::npos);
  EXPECT_EQ(log.find(kDemoToken), std::string::npos);
  EXPECT_EQ(log.find(kDemoPassword), std::string::npos);
}

TEST_F(RelayHttpTest, FailuresPassThroughWithStatusHeadersAndBody) {
  panel_->control({{"generation", "v1"}});
  const std::string wrong = Json{{"email", kDemoEmail}, {"password", "not-the-password"}}.dump();
  const Outcome refused = request({{"method", "POST"},
                                   {"url", panelUrl("/api/v1/passport/auth/login")},
                                   {"headers", {{"Content-Type", "application/json"}}},
                                   {"body", wrong}});
  ASSERT_TRUE(refused.reply);
  EXPECT_EQ((*refused.reply)["status"], 500);
  EXPECT_EQ((*refused.reply)["statusText"], "Internal Server Error");
  EXPECT_EQ(Json::parse((*refused.reply)["body"].get<std::string>()),
            Json({{"message", "邮箱或密码错误"}}));

  const Outcome missing = request({{"url", panelUrl("/api/v1/nothing/here")}});
  ASSERT_TRUE(missing.reply);
  EXPECT_EQ((*missing.reply)["status"], 404);
  EXPECT_EQ((*missing.reply)["statusText"], "Not Found");
  EXPECT_EQ((*missing.reply)["body"], "Not Found");
  EXPECT_EQ((*missing.reply)["headers"]["Content-Type"], "text/html; charset=UTF-8");
}

TEST_F(RelayHttpTest, AnswersOverSixteenMebibytesAreRefusedClearly) {
  httplib::Server site;
  site.Get("/big", [](const httplib::Request&, httplib::Response& response) {
    response.set_content(std::string((16u << 20) + 1, 'x'), "text/plain");
  });
  const int port = site.bind_to_any_port("127.0.0.1");
  std::thread serving([&] { site.listen_after_bind(); });
  const Outcome outcome = request({{"url", "http://127.0.0.1:" + std::to_string(port) + "/big"}});
  site.stop();
  serving.join();
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->description, "response larger than 16 MiB");
}

TEST_F(RelayHttpTest, ResponseHeadersReachThePageAndTokensStayOutOfTheLog) {
  const std::string link =
      panelUrl(std::string("/api/v1/client/subscribe?token=") + kDemoToken + "&flag=clash.meta");
  const Outcome out = request({{"url", link}});
  ASSERT_TRUE(out.reply);
  EXPECT_EQ((*out.reply)["status"], 200);
  const Json& headers = (*out.reply)["headers"];
  ASSERT_TRUE(headers.is_object());
  bool userInfo = false;
  for (const auto& [name, value] : headers.items()) {
    EXPECT_TRUE(value.is_string()) << name;
    if (base::toLowerAscii(name) == "subscription-userinfo") {
      userInfo = value.get<std::string>().find("total=") != std::string::npos;
    }
  }
  EXPECT_TRUE(userInfo) << headers.dump();
  EXPECT_NE((*out.reply)["body"].get<std::string>().find("proxies:"), std::string::npos);
  EXPECT_EQ(logText().find(kDemoToken), std::string::npos) << logText();
}

// --- the core's controller ----------------------------------------------------------------

class RelayControllerTest : public RelayHttpTest {
 protected:
  void SetUp() override {
    RelayHttpTest::SetUp();
    ASSERT_STRNE(kFakeCore, "") << "fake_core was not built";
    const auto home = dir_.path() / "core";
    std::filesystem::create_directories(home);
    writeText(home / "runtime.yaml", kCoreConfig);
    requestLog_ = dir_.path() / "core-requests.jsonl";
    core_ = std::make_unique<ChildProcess>(
        ChildProcess::Options{kFakeCore,
                              {"-d", home.string(), "-f", (home / "runtime.yaml").string()},
                              "",
                              {{"FAKE_CORE_REQUEST_LOG", requestLog_.string()}},
                              dir_.path()});
    ASSERT_TRUE(waitUntil([&] { return httpGet(std::string(kController) + "/").status != 0; }))
        << core_->stderrText();
  }

  void TearDown() override {
    RelayHttpTest::TearDown();
    core_.reset();
  }

  // "METHOD target" of every request the core received, in order.
  std::vector<std::string> coreRequests() const {
    std::vector<std::string> out;
    std::istringstream lines(readText(requestLog_));
    for (std::string line; std::getline(lines, line);) {
      const Json entry = Json::parse(line, nullptr, false);
      if (entry.is_object() && entry["path"] != "/") {
        out.push_back(entry["method"].get<std::string>() + " " + entry["path"].get<std::string>());
      }
    }
    return out;
  }

  std::string storedMode() const {
    return Json::parse(readText(paths_.settings), nullptr, false).value("mode", "");
  }

  std::filesystem::path requestLog_;
  std::unique_ptr<ChildProcess> core_;
};

TEST_F(RelayControllerTest, AliasGroupReachesTheProductGroupEncoded) {
  const Outcome out = request({{"url", std::string(kController) + "/proxies/SELECT"}});
  ASSERT_TRUE(out.reply);
  EXPECT_EQ((*out.reply)["status"], 200);
  EXPECT_EQ(Json::parse((*out.reply)["body"].get<std::string>())["name"], "QEV加速");

  // A sub-path is left alone; the core does not know "SELECT".
  const Outcome delay =
      request({{"url", std::string(kController) + "/proxies/SELECT/delay?timeout=100&url=x"}});
  ASSERT_TRUE(delay.reply);
  EXPECT_EQ((*delay.reply)["status"], 404);

  // The page may also name the group itself, unencoded.
  const Outcome raw = request({{"method", "PUT"},
                               {"url", std::string(kController) + "/proxies/QEV加速"},
                               {"body", R"({"name":"JP-02"})"}});
  ASSERT_TRUE(raw.reply);
  EXPECT_EQ((*raw.reply)["status"], 204);
  EXPECT_EQ((*raw.reply)["statusText"], "No Content");

  EXPECT_EQ(coreRequests(), (std::vector<std::string>{"GET /proxies/QEV%E5%8A%A0%E9%80%9F",
                                                      "GET /proxies/SELECT/delay?timeout=100&url=x",
                                                      "PUT /proxies/QEV%E5%8A%A0%E9%80%9F"}));
}

TEST_F(RelayControllerTest, ModeSentStraightToTheCoreIsSavedFirstThenConnectionsClose) {
  ASSERT_EQ(storedMode(), "rule");
  auto promise = std::make_shared<std::promise<Json>>();
  relay_.nativeHttpRequest(
      Json::array({{{"method", "PUT"},
                    {"url", std::string(kController) + "/configs"},
                    {"body", R"({"mode":"Global"})"}}}),
      [promise](Json reply) { promise->set_value(std::move(reply)); },
      [promise](BridgeError e) { promise->set_value(e.description); });
  // Saved by the time the request is under way, not when it completes.
  EXPECT_EQ(storedMode(), "global");
  auto future = promise->get_future();
  ASSERT_EQ(future.wait_for(30s), std::future_status::ready);
  EXPECT_EQ(future.get()["status"], 204);

  EXPECT_TRUE(waitUntil([&] { return coreRequests().size() >= 2; }));
  EXPECT_EQ(coreRequests(), (std::vector<std::string>{"PUT /configs", "DELETE /connections"}));
  EXPECT_NE(logText().find("native.mode.set.http: global"), std::string::npos);
}

}  // namespace
}  // namespace qev::test
