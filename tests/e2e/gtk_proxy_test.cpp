// The desktop application with the test panel and the test core: the page's panel requests
// and core commands travel through the runtime script and the bridge, and every way of
// quitting with the system proxy on leaves the machine clean.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <thread>

#include "../support/gtk/desktop_session.h"
#include "../support/testing/doubles_harness.h"
#include "base/json.h"
#include "temp_home.h"
#include "test_config.h"

namespace qev::test {
namespace {

namespace fs = std::filesystem;
using desktop::DesktopQev;

constexpr const char* kToken = "5f3c9a7e2b1d4c8f9a6e3b2d1c4f7a9e";  // the test panel's demo token

// The page hands over the subscription link, lists the servers, picks a node and connects,
// reporting each answer.
constexpr const char* kScenario = R"js(
  window.addEventListener('load', async () => {
    try {
      const config = await fetch('/api/v1/guest/comm/config');
      probe.report('panel', { status: config.status, body: await config.json() });
      probe.report('updated', await window.clash.updateConfig('LINK'));
      const servers = await window.clash.getServers();
      probe.report('servers', Object.keys(servers));
      probe.report('selected', await window.clash.setProxy(servers.SELECT.all[1]));
      probe.report('started', await window.clash.startProxy());
    } catch (error) {
      probe.report('failed', String(error && error.message || error));
    }
  });
)js";

enum class QuitPath { TrayMenu, Sigterm };

struct QuitCase {
  std::string name;
  QuitPath path;
  friend void PrintTo(const QuitCase& c, std::ostream* os) { *os << c.name; }
};

class DesktopProxyTest : public ::testing::TestWithParam<QuitCase> {
 protected:
  void SetUp() override {
    if (const auto tool = desktop::missingDesktopTool()) {
      GTEST_SKIP() << tool.value() << " is not installed";
    }
    if (std::string(kFakeCore).empty() || std::string(kFakePanel).empty()) {
      GTEST_SKIP() << "the test core and panel are not built";
    }
    panel_ = std::make_unique<doubles::ChildProcess>(
        doubles::ChildProcess::Options{kFakePanel, {"--port", "0"}, "", {}, root_.path()});
    ASSERT_TRUE(doubles::waitUntil([&] { return panelPort() > 0; }));
    panelBase_ = "http://127.0.0.1:" + std::to_string(panelPort());

    fs::create_directories(resources_);
    for (const auto& entry : fs::directory_iterator(kStageDir)) {
      if (entry.path().filename() == "dist") continue;
      fs::copy(entry.path(), resources_ / entry.path().filename(), fs::copy_options::recursive);
    }
    fs::copy(fs::path(kSupportDir) / "gtk/dist", resources_ / "dist", fs::copy_options::recursive);
    const std::string link = panelBase_ + "/api/v1/client/subscribe?token=" + kToken;
    writeText(resources_ / "dist/scenario.js",
              std::regex_replace(std::string(kScenario), std::regex("LINK"), link));
  }

  int panelPort() const {
    std::smatch m;
    const std::string out = panel_->stdoutText();
    return std::regex_search(out, m, std::regex(R"(port=(\d+))")) ? std::stoi(m[1]) : 0;
  }

  DesktopQev& start() {
    app_ =
        std::make_unique<DesktopQev>(DesktopQev::Options{kQevBinary,
                                                         home_,
                                                         resources_,
                                                         root_.path() / "scratch",
                                                         {{"QEV_API_BASE", panelBase_},
                                                          {"QEV_MIHOMO", kFakeCore},
                                                          {"GSETTINGS_BACKEND", "keyfile"},
                                                          {"XDG_CONFIG_HOME", config_.string()}}});
    return *app_;
  }

  std::string gsettings(const std::string& schema, const std::string& key) const {
    auto out =
        desktop::runTool({"gsettings", "get", schema, key},
                         {{"GSETTINGS_BACKEND", "keyfile"}, {"XDG_CONFIG_HOME", config_.string()}})
            .output;
    while (!out.empty() && out.back() == '\n') out.pop_back();
    return out;
  }

  fs::path dataFolder() const { return home_ / ".local/share/qevjs"; }

  std::string qevOutput() const {
    const auto file = root_.path() / "scratch/qev.log";
    return fs::exists(file) ? readText(file) : "";
  }

  TempDir root_;
  fs::path home_ = root_.path() / "home";
  fs::path config_ = root_.path() / "config";
  fs::path resources_ = root_.path() / "resources";
  std::unique_ptr<doubles::ChildProcess> panel_;
  std::string panelBase_;
  std::unique_ptr<DesktopQev> app_;
};

TEST_P(DesktopProxyTest, PageDrivesPanelAndCoreAndQuittingTurnsTheProxyOff) {
  auto& app = start();
  const auto panel = app.waitForLog("probe.panel", 90s);
  ASSERT_TRUE(panel) << app.waitForLog("probe.failed", 1s).value_or("") << qevOutput();
  // A relative panel path left the page through httpRequest and reached the test panel.
  EXPECT_EQ(Json::parse(*panel, nullptr, false).value("status", 0), 200) << *panel;
  EXPECT_TRUE(app.waitForEntry("native.bridge.call: httpRequest"));

  const auto updated = app.waitForLog("probe.updated", 90s);
  ASSERT_TRUE(updated) << app.waitForLog("probe.failed", 1s).value_or("");
  EXPECT_EQ(*updated, "true");
  const auto servers = app.waitForLog("probe.servers", 60s);
  ASSERT_TRUE(servers);
  const Json names = Json::parse(*servers, nullptr, false);
  ASSERT_TRUE(names.is_array()) << *servers;
  EXPECT_NE(std::find(names.begin(), names.end(), "SELECT"), names.end()) << *servers;
  EXPECT_EQ(std::find(names.begin(), names.end(), "DIRECT"), names.end()) << *servers;

  EXPECT_EQ(app.waitForLog("probe.selected", 60s), "true");
  ASSERT_EQ(app.waitForLog("probe.started", 90s), "true")
      << app.waitForLog("probe.failed", 1s).value_or("");
  EXPECT_EQ(gsettings("org.gnome.system.proxy", "mode"), "'manual'");

  switch (GetParam().path) {
    case QuitPath::TrayMenu: {
      const auto quit = app.trayEntry("退出");
      ASSERT_TRUE(quit);
      ASSERT_TRUE(app.clickTrayEntry(*quit));
      break;
    }
    case QuitPath::Sigterm:
      app.app().signal(SIGTERM);
      break;
  }
  const auto status = app.app().waitExit(90s);
  ASSERT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << qevOutput();
  EXPECT_EQ(gsettings("org.gnome.system.proxy", "mode"), "'none'");
  EXPECT_FALSE(fs::exists(dataFolder() / ".qevjs-runtime-config.yaml"));
  EXPECT_FALSE(fs::exists(dataFolder() / ".qevjs-runtime-tmp.yaml"));
  const Json settings = Json::parse(readText(dataFolder() / "qevjs-local.json"), nullptr, false);
  EXPECT_EQ(settings.value("proxyEnabled", true), false);
  const auto messages = app.logMessages();
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.back(), "native.shutdown.complete");
  EXPECT_EQ(app.countLog("native.shutdown.complete"), 1u);
}

INSTANTIATE_TEST_SUITE_P(Quit, DesktopProxyTest,
                         ::testing::Values(QuitCase{"TrayMenu", QuitPath::TrayMenu},
                                           QuitCase{"Sigterm", QuitPath::Sigterm}),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace qev::test
