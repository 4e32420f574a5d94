// The real application with its own frontend in a WebKitGTK window on a private X server, the
// test panel and the test core behind it, the system proxy in real gsettings on a keyfile
// backend. The page is driven through a driver script that exists only in the test's copy of
// the frontend: it reads commands (JavaScript expressions) from a file the test writes next to
// it and reports each result through the page's log channel.

#include <signal.h>
#include <sys/wait.h>

#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/json.h"
#include "base/strings.h"
#include "gtk/desktop_session.h"
#include "loopback_site.h"
#include "temp_home.h"
#include "test_config.h"
#include "test_processes.h"
#include "tunnel_client.h"

namespace qev::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using desktop::DesktopQev;

constexpr const char* kResultTag = "frontend.test.result: ";

fs::path frontendArtifactsDir() {
  return artifactsDir() / "frontend";
}

class FrontendWindowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const auto tool = desktop::missingDesktopTool()) {
      GTEST_SKIP() << tool.value() << " is not installed";
    }
    if (!desktop::findProgram("gsettings")) GTEST_SKIP() << "gsettings is not installed";
    ASSERT_STRNE(kFakePanel, "") << "fake_panel was not built";
    ASSERT_STRNE(kFakeCore, "") << "fake_core was not built";
    // The staged resources with the real frontend, plus the driver in this copy only.
    fs::create_directories(resources_);
    fs::copy(kStageDir, resources_, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    const fs::path dist = resources_ / "dist";
    ASSERT_TRUE(fs::exists(dist / "index.html")) << "the frontend is not staged in " << kStageDir;
    fs::copy_file(fs::path(kSupportDir) / "gtk/frontend_driver.js",
                  dist / "frontend-test-driver.js");
    writeText(dist / "driver-commands.json", "[]");
    const std::string index = readText(dist / "index.html");
    ASSERT_NE(index.find("</body>"), std::string::npos);
    writeText(dist / "index.html",
              base::replaceAll(index, "</body>",
                               "<script src=\"/frontend-test-driver.js\"></script>\n</body>"));
    fs::create_directories(root_.path() / "config");
  }

  // The diagnostic log beside the screenshots, for whoever looks at them.
  void TearDown() override {
    if (!app_ || !fs::exists(app_->logFile())) return;
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    fs::create_directories(frontendArtifactsDir());
    fs::copy_file(app_->logFile(), frontendArtifactsDir() / (std::string(info->name()) + ".log"),
                  fs::copy_options::overwrite_existing);
  }

  DesktopQev& start(const std::string& generation, const desktop::Env& extra = {}) {
    panel_ = std::make_unique<PanelProcess>(root_.path(), generation);
    // The panel would offer a newer client at every start; that dialog is not under test here.
    panel_->control({{"macos_version", nullptr}});
    desktop::Env env = {
        {"QEV_API_BASE", panel_->base()}, {"QEV_MIHOMO", kFakeCore},
        {"GSETTINGS_BACKEND", "keyfile"}, {"XDG_CONFIG_HOME", (root_.path() / "config").string()},
        {"LANG", "zh_CN.UTF-8"},          {"LANGUAGE", "zh_CN"}};
    for (const auto& [key, value] : extra) env[key] = value;
    app_ = std::make_unique<DesktopQev>(
        DesktopQev::Options{kQevBinary, home_, resources_, root_.path() / "scratch", env});
    if (!app_->waitForLog("frontend.test.result", 90s)) {
      ADD_FAILURE() << "the page did not load\n" << app_->output();
    }
    std::vector<unsigned long> windows;
    eventually([&] { return (windows = app_->visibleWindows()).size() == 1; });
    window_ = windows.empty() ? 0 : windows.front();
    // The page starts in the system's language; these tests read Chinese first.
    run("document.documentElement.lang === 'zh-CN' || $t.click('lang-toggle')");
    return *app_;
  }

  // Runs one JavaScript expression in the page and returns its (awaited) value.
  Json run(const std::string& js, std::chrono::milliseconds timeout = 20s) {
    const int id = ++lastCommand_;
    commands_.push_back({{"id", id}, {"js", js}});
    writeText(resources_ / "dist/driver-commands.json", commands_.dump());
    std::optional<Json> result;
    eventually(
        [&] {
          for (const auto& message : app_->logMessages()) {
            if (!message.starts_with(kResultTag)) continue;
            const Json parsed =
                Json::parse(message.substr(std::string(kResultTag).size()), nullptr, false);
            if (parsed.is_object() && parsed.value("id", -1) == id) {
              result = parsed;
              return true;
            }
          }
          return false;
        },
        timeout);
    if (!result) {
      ADD_FAILURE() << "no answer to: " << js;
      return Json();
    }
    if (!result->value("ok", false)) {
      ADD_FAILURE() << js << " failed: " << result->value("error", std::string());
      return Json();
    }
    return result->value("value", Json());
  }

  // Waits until a JavaScript condition holds in the page.
  bool waitUntil(const std::string& condition, std::chrono::milliseconds timeout = 30s) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
      const Json value = run("Boolean(" + condition + ")");
      if (value.is_boolean() && value.get<bool>()) return true;
      std::this_thread::sleep_for(200ms);
    }
    ADD_FAILURE() << "never true in the page: " << condition << "\n" << logTail();
    return false;
  }

  std::string text(const std::string& selector) {
    const Json value = run("$t.text(" + Json(selector).dump() + ")");
    return value.is_string() ? value.get<std::string>() : std::string();
  }

  void click(const std::string& key) { run("$t.click(" + Json(key).dump() + ")"); }

  std::string gsetting(const std::string& schema, const std::string& key) {
    auto out = app_->tool({"gsettings", "get", schema, key}).output;
    while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
    return out;
  }

  // A picture of the window for people to look at; the name says what it shows.
  void screenshot(const std::string& name) {
    std::this_thread::sleep_for(400ms);  // let the last change paint
    const fs::path file = frontendArtifactsDir() / (name + ".png");
    fs::create_directories(file.parent_path());
    app_->tool({"import", "-window", std::to_string(window_), file.string()});
    EXPECT_TRUE(fs::exists(file)) << "no screenshot " << file;
  }

  // Signs in with the demo account and waits for the account summary.
  void signIn() {
    ASSERT_TRUE(waitUntil("document.querySelector('#email')", 60s)) << app_->output();
    run(std::string("$t.type('#email', '") + kDemoEmail + "')");
    run(std::string("$t.type('#password', '") + kDemoPassword + "')");
    click("login-submit");
    // The runtime reloads the page once after the first login; the summary comes after that.
    ASSERT_TRUE(waitUntil("$t.text('#plan-name') === '标准套餐'", 60s));
  }

  std::string logTail() const {
    const auto messages = app_ ? app_->logMessages() : std::vector<std::string>();
    std::string out;
    for (std::size_t i = messages.size() > 40 ? messages.size() - 40 : 0; i < messages.size();
         ++i) {
      if (!messages[i].starts_with(kResultTag)) out += messages[i] + "\n";
    }
    return out;
  }

  TempDir root_;
  fs::path home_ = root_.path() / "home";
  fs::path resources_ = root_.path() / "resources";
  std::unique_ptr<PanelProcess> panel_;
  std::unique_ptr<DesktopQev> app_;
  unsigned long window_ = 0;
  Json commands_ = Json::array();
  int lastCommand_ = 0;
};

TEST_F(FrontendWindowTest, SignInConnectSwitchModeDisconnectSignOut) {
  start("v2");
  ASSERT_TRUE(waitUntil("document.querySelector('#email')", 60s)) << app_->output();
  EXPECT_EQ(run("document.documentElement.lang"), "zh-CN");
  screenshot("login-zh");

  // A wrong password: the panel's own words, and no session.
  run(std::string("$t.type('#email', '") + kDemoEmail + "')");
  run("$t.type('#password', 'not-the-password')");
  click("login-submit");
  ASSERT_TRUE(waitUntil("document.querySelector('#login-error')"));
  EXPECT_EQ(text("#login-error"), "邮箱或密码错误");
  EXPECT_EQ(run("localStorage.getItem('auth_data')"), Json());
  screenshot("login-error-zh");

  run(std::string("$t.type('#password', '") + kDemoPassword + "')");
  click("login-submit");
  ASSERT_TRUE(waitUntil("$t.text('#plan-name') === '标准套餐'", 60s)) << logTail();
  EXPECT_EQ(text(".traffic-used"), "已用 2.34 GB / 共 100 GB");
  EXPECT_TRUE(run("localStorage.getItem('auth_data')").get<std::string>().starts_with("Bearer "));

  // The subscription reaches the core; the node list follows.
  ASSERT_TRUE(waitUntil("$t.text('.node-row-name') === '香港01'", 60s)) << logTail();
  ASSERT_TRUE(waitUntil("$t.text('.updated .muted') === '订阅刚刚更新'", 10s)) << text(".updated");
  screenshot("home-zh");
  click("tab:nodes");
  ASSERT_TRUE(waitUntil("document.querySelectorAll('.node').length >= 5"));
  const Json names = run("$t.texts('.node-name')");
  EXPECT_EQ(names.at(0), "香港01");
  for (const auto& name : names) {
    EXPECT_EQ(name.get<std::string>().find("剩余流量"), std::string::npos)
        << "a hidden choice is listed";
    EXPECT_NE(name, "自动选择");
  }
  click("test-latency");
  ASSERT_TRUE(
      waitUntil("!$t.key('test-latency').disabled && !document.querySelector('.delay-testing')"));
  EXPECT_TRUE(run("$t.texts('.node .delay').every((t) => /^\\d+ ms$/.test(t))").get<bool>())
      << run("$t.texts('.node .delay')").dump();
  // Every group the user may switch, the main one first; another group shows its own members.
  const Json groups = run("Array.from($t.key('node-group').options).map((o) => o.textContent)");
  ASSERT_GE(groups.size(), 2u) << groups.dump();
  EXPECT_EQ(groups.at(0), "主线路");
  run("const g = $t.key('node-group'); g.value = g.options[1].value; g.dispatchEvent(new "
      "Event('change'))");
  ASSERT_TRUE(
      waitUntil("$t.key('node-group').selectedIndex === 1 && document.querySelector('.node')"));
  screenshot("nodes-group-zh");
  run("const g = $t.key('node-group'); g.value = 'SELECT'; g.dispatchEvent(new Event('change'))");
  ASSERT_TRUE(waitUntil("$t.texts('.node-name')[0] === '香港01'"));
  click("node:日本02");
  ASSERT_TRUE(waitUntil("$t.text('.node[aria-pressed=true] .node-name') === '日本02'"));
  ASSERT_TRUE(waitUntil("$t.text('.nodes .notice') === '已切换到 日本02。'"));
  EXPECT_TRUE(app_->waitForLog("native.setProxy.ok"));
  screenshot("nodes-zh");

  // Connect: the system proxy goes on in gsettings.
  click("tab:home");
  EXPECT_EQ(gsetting("org.gnome.system.proxy", "mode"), "'none'");
  click("connect");
  ASSERT_TRUE(waitUntil("$t.text('#connect-status') === '已连接'", 60s)) << logTail();
  EXPECT_EQ(gsetting("org.gnome.system.proxy", "mode"), "'manual'");
  EXPECT_EQ(gsetting("org.gnome.system.proxy.http", "host"), "'127.0.0.1'");
  EXPECT_EQ(gsetting("org.gnome.system.proxy.http", "port"), "33210");
  EXPECT_EQ(gsetting("org.gnome.system.proxy.socks", "port"), "33211");
  // The core's speed, once a second, and the routing at a glance.
  ASSERT_TRUE(waitUntil("/^\\d+(\\.\\d+)? [KMG]?B\\/s$/.test($t.text('.speed-down dd'))", 10s));
  EXPECT_EQ(text(".routing"), "规则模式 · TUN 未开启");
  screenshot("home-connected-zh");

  // Activity: a real tunnel through the core is listed and closed from the page; the core's
  // log follows, filtered by level.
  LoopbackSite site;
  TunnelClient tunnel(std::stoi(site.origin().substr(site.origin().rfind(':') + 1)));
  ASSERT_TRUE(tunnel.established());
  click("tab:activity");
  ASSERT_TRUE(waitUntil("$t.text('.connection-host') === '127.0.0.1'", 10s));
  EXPECT_NE(text(".connection-route").find("日本02"), std::string::npos)
      << text(".connection-route");
  screenshot("connections-zh");
  run("document.querySelector('.close-button').click()");
  ASSERT_TRUE(waitUntil("!document.querySelector('.connection')", 10s));
  EXPECT_TRUE(eventually([&] { return tunnel.closedByPeer(); }, 5s));
  click("activity:logs");
  ASSERT_TRUE(waitUntil("$t.texts('.log-line').some((l) => l.includes('127.0.0.1'))", 10s));
  screenshot("logs-zh");
  run("const s = $t.key('log-level'); s.value = 'error'; s.dispatchEvent(new Event('change'))");
  ASSERT_TRUE(waitUntil("$t.texts('.log-line').every((l) => l.startsWith('error'))", 10s));

  // Routing mode: saved and applied to the running core.
  click("tab:settings");
  EXPECT_TRUE(run("document.querySelector('#mode-rule').checked").get<bool>());
  run("document.querySelector('#mode-global').click()");
  EXPECT_TRUE(app_->waitForLog("native.mode.set"));
  ASSERT_TRUE(waitUntil("document.querySelector('#mode-global').checked"));
  // Through the page's own relay: only qev holds the controller's secret.
  EXPECT_EQ(
      run("fetch('http://127.0.0.1:33212/configs').then((r) => r.json()).then((c) => c.mode)"),
      "global");
  EXPECT_EQ(run("document.querySelector('.settings .alert')"), Json());
  screenshot("settings-zh");

  // The same pages in English.
  click("lang-toggle");
  EXPECT_EQ(run("document.documentElement.lang"), "en");
  EXPECT_EQ(text(".view-title"), "Settings");
  screenshot("settings-en");
  click("tab:nodes");
  ASSERT_TRUE(waitUntil("document.querySelectorAll('.node').length >= 5"));
  screenshot("nodes-en");
  click("tab:home");
  EXPECT_EQ(text(".traffic-used"), "2.34 GB of 100 GB used");
  EXPECT_EQ(text("#connect-status"), "Connected");
  EXPECT_EQ(text(".routing"), "Global mode · TUN off");
  screenshot("home-en");
  click("tab:activity");
  ASSERT_TRUE(waitUntil("$t.text('.view-title') === 'Activity'"));
  screenshot("logs-en");
  click("activity:connections");
  ASSERT_TRUE(waitUntil("document.querySelector('.connection-list, .activity .empty')"));
  screenshot("connections-en");
  click("tab:home");

  // Disconnect: the system proxy goes off.
  click("connect");
  ASSERT_TRUE(waitUntil("$t.text('#connect-status') === 'Not connected'", 30s));
  EXPECT_EQ(gsetting("org.gnome.system.proxy", "mode"), "'none'");

  // Sign out: back to the login, nothing of the session left in the page.
  click("tab:settings");
  EXPECT_EQ(text(".email"), kDemoEmail);
  click("logout");
  ASSERT_TRUE(
      waitUntil("document.querySelector('#email') && !document.querySelector('.tabs')", 30s));
  EXPECT_EQ(run("[localStorage.getItem('auth_data'), localStorage.getItem('token')]"),
            Json::array({nullptr, nullptr}));
  EXPECT_EQ(run("document.documentElement.lang"), "en");
  screenshot("login-en");
}

TEST_F(FrontendWindowTest, DeadNodeShowsUnavailableAndLeavesTheProxyOff) {
  // A dark desktop theme, so the artifacts show the dark colours as well.
  start("v1", {{"FAKE_CORE_DELAY_FAIL", "香港01"}, {"GTK_THEME", "Adwaita:dark"}});
  signIn();
  ASSERT_TRUE(waitUntil("$t.text('.node-row-name') === '香港01'", 60s)) << logTail();
  click("connect");
  ASSERT_TRUE(waitUntil("document.querySelector('.connect .alert')", 60s)) << logTail();
  EXPECT_EQ(text(".connect .alert strong"), "当前节点不可用");
  EXPECT_EQ(text("#connect-status"), "未连接");
  EXPECT_TRUE(app_->waitForLog("native.startProxy.unavailable"));
  EXPECT_EQ(gsetting("org.gnome.system.proxy", "mode"), "'none'");
  const bool dark = run("matchMedia('(prefers-color-scheme: dark)').matches") == Json(true);
  screenshot(dark ? "home-unavailable-zh-dark" : "home-unavailable-zh");

  // Another node works.
  click("choose-node");
  ASSERT_TRUE(waitUntil("$t.texts('.node-name').includes('US West 03')"));
  click("node:US West 03");
  ASSERT_TRUE(waitUntil("$t.text('.node[aria-pressed=true] .node-name') === 'US West 03'"));
  click("tab:home");
  click("connect");
  ASSERT_TRUE(waitUntil("$t.text('#connect-status') === '已连接'", 60s)) << logTail();
  EXPECT_EQ(gsetting("org.gnome.system.proxy", "mode"), "'manual'");

  // Switching to the dead node while connected: found by search, then a warning, not silence.
  click("tab:nodes");
  run("const s = $t.key('node-search'); s.value = '港'; s.dispatchEvent(new Event('input'))");
  ASSERT_TRUE(waitUntil("$t.texts('.node-name').join() === '香港01'"));
  click("node:香港01");
  ASSERT_TRUE(waitUntil("document.querySelector('.nodes .alert')", 30s)) << logTail();
  EXPECT_EQ(text(".nodes .alert"),
            "已切换到 香港01，但它没有响应：当前连接可能无法使用，请换一个节点。");
  screenshot(dark ? "nodes-dead-warning-zh-dark" : "nodes-dead-warning-zh");

  // Quitting with the proxy on leaves the desktop direct and no plaintext behind.
  app_->app().signal(SIGTERM);
  const auto status = app_->app().waitExit(90s);
  ASSERT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << app_->output();
  EXPECT_EQ(gsetting("org.gnome.system.proxy", "mode"), "'none'");
  const fs::path data = home_ / ".local/share/qevjs";
  EXPECT_FALSE(fs::exists(data / ".qevjs-runtime-config.yaml"));
  EXPECT_EQ(
      Json::parse(readText(data / "qevjs-local.json"), nullptr, false).value("proxyEnabled", true),
      false);
  EXPECT_EQ(app_->countLog("native.shutdown.complete"), 1u);
}

}  // namespace
}  // namespace qev::test
