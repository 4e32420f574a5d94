// The desktop application in a real WebKitGTK window on a private X server and session bus:
// the page drives the real runtime script and reports through its log channel.

#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/json.h"
#include "base/strings.h"
#include "config/runtime_config_text.h"
#include "gtk/desktop_session.h"
#include "loopback_site.h"
#include "storage/profile.h"
#include "storage/protected_files.h"
#include "temp_home.h"
#include "test_config.h"
#include "test_processes.h"

namespace qev::test {
namespace {

namespace fs = std::filesystem;
using desktop::DesktopQev;

class DesktopWindowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const auto tool = desktop::missingDesktopTool()) {
      GTEST_SKIP() << tool.value() << " is not installed";
    }
    // The staged resources (runtime script, icons) with the probe page as the frontend.
    fs::create_directories(resources_);
    for (const auto& entry : fs::directory_iterator(kStageDir)) {
      if (entry.path().filename() == "dist") continue;
      fs::copy(entry.path(), resources_ / entry.path().filename(),
               fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    }
    ASSERT_TRUE(fs::exists(resources_ / "nativeCompatibilityScript.js"))
        << "the runtime script is not staged in " << kStageDir;
    fs::copy(fs::path(kSupportDir) / "gtk/dist", resources_ / "dist", fs::copy_options::recursive);
    writeScenario("");
    installRecordingBrowser();
  }

  // The desktop's default handler for web and mail links: a program that records its argument.
  void installRecordingBrowser() {
    const fs::path recorder = root_.path() / "bin/record-url";
    writeText(recorder, "#!/bin/sh\nprintf '%s\\n' \"$1\" >> '" + opened_.string() + "'\n");
    fs::permissions(recorder, fs::perms::owner_all);
    writeText(
        home_ / ".local/share/applications/qev-test-browser.desktop",
        "[Desktop Entry]\nType=Application\nName=Recording browser\nExec=" + recorder.string() +
            " %u\nNoDisplay=true\nMimeType=x-scheme-handler/http;"
            "x-scheme-handler/https;x-scheme-handler/mailto;\n");
    writeText(home_ / ".config/mimeapps.list",
              "[Default Applications]\n"
              "x-scheme-handler/http=qev-test-browser.desktop\n"
              "x-scheme-handler/https=qev-test-browser.desktop\n"
              "x-scheme-handler/mailto=qev-test-browser.desktop\n");
  }

  void writeScenario(const std::string& script) {
    writeText(resources_ / "dist/scenario.js", script);
  }

  DesktopQev& start(desktop::Env env = {}) {
    app_ = std::make_unique<DesktopQev>(
        DesktopQev::Options{kQevBinary, home_, resources_, root_.path() / "scratch", env});
    return *app_;
  }

  // Waits for the page and returns the id of the main window.
  unsigned long waitForMainWindow() {
    EXPECT_TRUE(app_->waitForLog("probe.loaded", 90s)) << app_->output();
    std::vector<unsigned long> windows;
    EXPECT_TRUE(eventually([&] { return (windows = app_->visibleWindows()).size() == 1; }));
    return windows.empty() ? 0 : windows.front();
  }

  std::vector<std::string> openedLinks() const {
    std::vector<std::string> lines;
    std::istringstream in(fs::exists(opened_) ? readText(opened_) : "");
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  bool linkOpened(const std::string& url) const {
    return eventually([&] {
      const auto links = openedLinks();
      return std::find(links.begin(), links.end(), url) != links.end();
    });
  }

  // A dialog of the application other than the windows in `known`, once it shows.
  std::optional<unsigned long> waitForDialog(const std::set<unsigned long>& known) {
    std::optional<unsigned long> dialog;
    eventually([&] {
      for (const auto w : app_->visibleWindows()) {
        if (!known.count(w)) dialog = w;
      }
      return dialog.has_value();
    });
    // Mapped is not yet drawn; give the toolkit a moment to lay the buttons out.
    std::this_thread::sleep_for(500ms);
    return dialog;
  }

  // Clicks the dialog's button row at `fraction` of its width (buttons share the row).
  void clickDialogButton(unsigned long dialog, double fraction) {
    const auto g = app_->geometry(dialog);
    ASSERT_TRUE(g);
    ASSERT_TRUE(app_->click(g->x + static_cast<int>(g->width * fraction), g->y + g->height - 16));
  }

  TempDir root_;
  fs::path home_ = root_.path() / "home";
  fs::path resources_ = root_.path() / "resources";
  fs::path opened_ = root_.path() / "opened.txt";
  std::unique_ptr<DesktopQev> app_;
};

TEST_F(DesktopWindowTest, PageTalksToTheBridgeThroughTheRuntimeScript) {
  writeScenario(R"js(
    probe.report('charset', document.characterSet);
    window.__qevjs.getSettings().then(
        (settings) => probe.report('settings', settings),
        (error) => probe.report('settingsError', String(error)));
    const electron = require('electron');
    probe.report('electron', {
      then: typeof electron.then,
      openExternal: typeof electron.shell.openExternal,
      loginItems: typeof electron.remote.app.getLoginItemSettings,
    });
    const fs = require('fs');
    let before = '';
    try { fs.readFileSync('/virtual/token'); } catch (e) { before = e.message; }
    fs.writeFileSync('C:\\virtual\\token', 'abc');
    probe.report('files', {
      before,
      after: fs.readFileSync('/virtual/token'),
      mirrored: localStorage.getItem('token'),
      exists: fs.existsSync('/virtual/token'),
    });
    fetch('/data.json').then((r) => r.json()).then(
        (json) => probe.report('fetch', json), (error) => probe.report('fetchError', String(error)));
  )js");
  auto& app = start();
  waitForMainWindow();

  EXPECT_EQ(app.waitForLog("probe.charset"), "UTF-8");
  const auto settings = app.waitForLog("probe.settings");
  ASSERT_TRUE(settings) << app_->output();
  const Json parsed = Json::parse(*settings, nullptr, false);
  ASSERT_TRUE(parsed.is_object()) << *settings;
  EXPECT_EQ(parsed.value("mode", ""), "rule");
  EXPECT_EQ(parsed.value("proxyEnabled", true), false);
  EXPECT_TRUE(app.waitForEntry("native.bridge.call: getSettings"));

  const auto electron = app.waitForLog("probe.electron");
  ASSERT_TRUE(electron);
  EXPECT_EQ(
      Json::parse(*electron),
      Json({{"then", "undefined"}, {"openExternal", "function"}, {"loginItems", "function"}}));

  const auto files = app.waitForLog("probe.files");
  ASSERT_TRUE(files);
  const Json credential = Json::parse(*files, nullptr, false);
  EXPECT_EQ(credential.value("before", ""),
            "ENOENT: no such file or directory, open /virtual/token");
  EXPECT_EQ(credential.value("after", ""), "abc");
  EXPECT_EQ(credential.value("mirrored", ""), "abc");
  EXPECT_EQ(credential.value("exists", false), true);

  // The page's own files come from the scheme, text decoded as UTF-8.
  const auto fetched = app.waitForLog("probe.fetch");
  ASSERT_TRUE(fetched) << app.waitForLog("probe.fetchError", 1s).value_or("");
  EXPECT_EQ(Json::parse(*fetched), Json({{"served", "从磁盘读取"}}));
  EXPECT_EQ(app.countLog("native.webview.loadFailed"), 0u);
}

TEST_F(DesktopWindowTest, TrayMenuSpeaksThePageLanguageAndSwitchesTheRoutingMode) {
  writeScenario("window.__qevjs.setLanguage('en').then((ok) => probe.report('language', ok));");
  auto& app = start();
  waitForMainWindow();
  EXPECT_EQ(app.waitForLog("probe.language"), "true");
  ASSERT_TRUE(eventually([&] { return app.trayEntry("Show Window").has_value(); }))
      << "the tray stayed in Chinese";
  for (const char* label : {"Connect", "Global", "Direct", "No node chosen", "Quit"}) {
    EXPECT_TRUE(app.trayEntry(label)) << label;
  }
  EXPECT_TRUE(app.trayEntryChecked("Rule"));

  const auto global = app.trayEntry("Global");
  ASSERT_TRUE(global);
  ASSERT_TRUE(app.clickTrayEntry(*global));
  // Saved at once, whether or not a core runs to take it up.
  EXPECT_TRUE(eventually([&] { return app.trayEntryChecked("Global"); }));
  EXPECT_FALSE(app.trayEntryChecked("Rule"));
  EXPECT_TRUE(app.waitForEntry("native.mode.set: global"));
}

TEST_F(DesktopWindowTest, NativeEventsReachThePageWhileTheWindowShows) {
  // A stored subscription, the proxy left on, and a core that takes its time to start: the
  // restore finishes while the page listens, and traffic samples follow once a second.
  storage::Environment environment;
  environment.home = home_;
  environment.userName = storage::Environment::fromProcess().userName;
  const auto profile = storage::Profile::forLinux(environment);
  fs::create_directories(profile.paths.appSupport);
  const storage::ProtectedFiles files(profile.paths, environment.userName);
  const std::string subscription =
      "proxies:\n  - {name: HK-01, type: ss, server: a.example.com, port: 443, "
      "cipher: aes-128-gcm, password: p}\n"
      "proxy-groups:\n  - {name: SELECT, type: select, proxies: [HK-01]}\n"
      "rules:\n  - MATCH,SELECT\n";
  ASSERT_FALSE(files.writeProtectedData(subscription, profile.paths.protectedRawConfig));
  ASSERT_FALSE(files.writeProtectedData(config::buildRuntimeConfigText(subscription, "rule", false),
                                        profile.paths.protectedConfig));
  writeText(profile.paths.settings, R"({"proxyEnabled": true})");
  writeScenario(R"js(
    window.addEventListener('native:proxyState', (e) => probe.report('proxyState', e.detail));
    let samples = 0;
    window.addEventListener('native:traffic', (e) => {
      if (samples++ === 0) probe.report('traffic', Object.keys(e.detail).sort());
    });
  )js");
  auto& app = start({{"QEV_MIHOMO", kFakeCore},
                     {"FAKE_CORE_START_DELAY_MS", "3000"},
                     {"GSETTINGS_BACKEND", "memory"}});
  waitForMainWindow();
  const auto state = app.waitForLog("probe.proxyState", 90s);
  ASSERT_TRUE(state) << app_->output();
  EXPECT_EQ(Json::parse(*state), Json({{"connected", true}, {"reason", "restored"}}));
  const auto traffic = app.waitForLog("probe.traffic", 30s);
  ASSERT_TRUE(traffic);
  EXPECT_EQ(Json::parse(*traffic), Json({"down", "downTotal", "up", "upTotal"}));
}

TEST_F(DesktopWindowTest, AFrameOfAnotherOriginCannotReachTheNativeSide) {
  // A third-party page inside the app's window tries every way in it could know of.
  httplib::Server site;
  site.Get("/frame.html", [](const httplib::Request&, httplib::Response& response) {
    response.set_content(R"html(<!doctype html><script>
      const report = { qevjs: typeof window.__qevjs, clash: typeof window.clash };
      try {
        window.webkit.messageHandlers.nativeBridge.postMessage(
            { id: 'evil', name: 'setTun', args: [true] });
        report.posted = 'posted';
      } catch (error) {
        report.posted = 'refused';
      }
      try {
        top.document.documentElement.setAttribute('data-qev-native-message', '{}');
        report.topDocument = 'reached';
      } catch (error) {
        report.topDocument = 'refused';
      }
      parent.postMessage({ frameReport: report }, '*');
    </script>)html",
                         "text/html");
  });
  const int port = site.bind_to_any_port("127.0.0.1");
  std::thread serving([&] { site.listen_after_bind(); });
  writeScenario(base::replaceAll(R"js(
    window.addEventListener('message', (event) => {
      if (event.data && event.data.frameReport) probe.report('frame', event.data.frameReport);
    });
    const frame = document.createElement('iframe');
    frame.src = 'http://127.0.0.1:@PORT@/frame.html';
    document.body.appendChild(frame);
    window.__qevjs.getSettings().then((settings) => probe.report('ownCall', typeof settings));
  )js",
                                 "@PORT@", std::to_string(port)));
  auto& app = start();
  waitForMainWindow();
  const auto frame = app.waitForLog("probe.frame", 60s);
  site.stop();
  serving.join();
  ASSERT_TRUE(frame) << app_->output();
  EXPECT_EQ(Json::parse(*frame), Json({{"qevjs", "undefined"},
                                       {"clash", "undefined"},
                                       {"posted", "refused"},
                                       {"topDocument", "refused"}}));
  // The app's own page still reaches the native side; the frame never did.
  EXPECT_EQ(app.waitForLog("probe.ownCall"), "object");
  EXPECT_EQ(app.countLog("native.bridge.call: setTun"), 0u);
}

TEST_F(DesktopWindowTest, ExternalLinksLeaveTheWindowAndNoSecondWindowOpens) {
  LoopbackSite site;
  const std::string origin = site.origin();

  writeScenario(base::replaceAll(R"js(
    window.addEventListener('load', () => {
      location.href = 'mailto:help@example.com';
      const link = document.createElement('a');
      link.href = 'https://example.com/ticket?id=7';
      link.target = '_blank';
      document.body.appendChild(link);
      link.click();
      probe.report('internalOpen', String(window.open('qevnative://app/second.html')));
      const frame = document.createElement('iframe');
      frame.src = 'ORIGIN/frame';
      frame.addEventListener('load', () => {
        probe.report('frameLoaded', frame.src);
        location.href = 'ORIGIN/landing';
        setTimeout(() => probe.report('stayed', location.href), 3000);
      });
      document.body.appendChild(frame);
    });
  )js",
                                 "ORIGIN", origin));
  auto& app = start();
  waitForMainWindow();

  EXPECT_TRUE(linkOpened("https://example.com/ticket?id=7"));  // target=_blank
  EXPECT_TRUE(linkOpened("mailto:help@example.com"));          // main-frame navigation
  EXPECT_TRUE(linkOpened(origin + "/landing"));                // scripted main-frame redirect
  EXPECT_EQ(app.waitForLog("probe.internalOpen"), "null");

  // The sub-frame kept its own content and the page survived the redirect.
  EXPECT_EQ(app.waitForLog("probe.frameLoaded"), origin + "/frame");
  EXPECT_EQ(app.waitForLog("probe.stayed"), "qevnative://app/");
  const auto links = openedLinks();
  EXPECT_EQ(std::count(links.begin(), links.end(), origin + "/frame"), 0);
  EXPECT_EQ(links.size(), 3u) << ::testing::PrintToString(links);
  EXPECT_EQ(app.visibleWindows().size(), 1u);
  EXPECT_EQ(site.requests("/frame"), 1);
}

TEST_F(DesktopWindowTest, DialogsShowTheHiddenWindowAndAnswerThePage) {
  // The page asks only once its window is hidden, so the dialogs must bring it back.
  writeScenario(R"js(
    document.addEventListener('visibilitychange', () => {
      if (document.visibilityState !== 'hidden' || window.asked) return;
      window.asked = true;
      setTimeout(() => {
        probe.report('cancel', confirm('要断开连接吗？'));
        probe.report('ok', confirm('要连接吗？'));
        alert('已连接');
        probe.report('alertClosed', true);
      }, 300);
    });
  )js");
  auto& app = start();
  const auto main = waitForMainWindow();
  ASSERT_TRUE(app.closeWindow(main));

  const auto firstConfirm = waitForDialog({main});
  ASSERT_TRUE(firstConfirm) << "no dialog after the window was closed";
  const auto windows = app.visibleWindows();
  EXPECT_NE(std::find(windows.begin(), windows.end(), main), windows.end())
      << "the dialog did not bring the window back";
  EXPECT_TRUE(app.screenshot(artifactsDir() / "gtk-confirm.png"));
  clickDialogButton(*firstConfirm, 0.25);  // "取消"
  EXPECT_EQ(app.waitForLog("probe.cancel"), "false");

  const auto secondConfirm = waitForDialog({main, *firstConfirm});
  ASSERT_TRUE(secondConfirm);
  clickDialogButton(*secondConfirm, 0.75);  // "确定"
  EXPECT_EQ(app.waitForLog("probe.ok"), "true");

  const auto alert = waitForDialog({main, *firstConfirm, *secondConfirm});
  ASSERT_TRUE(alert);
  clickDialogButton(*alert, 0.5);  // the only button
  EXPECT_EQ(app.waitForLog("probe.alertClosed"), "true");
  EXPECT_TRUE(eventually([&] { return app.visibleWindows().size() == 1; }));
}

TEST_F(DesktopWindowTest, ClosedWindowComesBackFromTheTrayAndFromASecondStart) {
  auto& app = start();
  const auto main = waitForMainWindow();
  EXPECT_EQ(app.tool({"xdotool", "getwindowname", std::to_string(main)}).output, "QEV\n");
  const auto size = app.geometry(main);
  ASSERT_TRUE(size);
  EXPECT_EQ(size->width, 420);
  EXPECT_EQ(size->height, 560);
  // Let WebKit paint before the picture is taken.
  std::this_thread::sleep_for(2s);
  EXPECT_TRUE(app.screenshot(artifactsDir() / "gtk-window.png"));

  ASSERT_TRUE(app.closeWindow(main));
  ASSERT_TRUE(eventually([&] { return app.visibleWindows().empty(); }));
  EXPECT_TRUE(app.app().running()) << "closing the window ended the application";

  // The tray item: its label and the shipped icon, by absolute path.
  EXPECT_NE(app.trayProperty("XAyatanaLabel").find("'QEV'"), std::string::npos);
  EXPECT_NE(
      app.trayProperty("IconName").find("'" + (resources_ / "icons/qev-tray.svg").string() + "'"),
      std::string::npos)
      << app.trayProperty("IconName");

  const auto show = app.trayEntry("显示窗口");
  ASSERT_TRUE(show) << "tray menu not exported";
  ASSERT_TRUE(app.clickTrayEntry(*show));
  EXPECT_TRUE(eventually([&] { return app.visibleWindows() == std::vector<unsigned long>{main}; }));

  ASSERT_TRUE(app.closeWindow(main));
  ASSERT_TRUE(eventually([&] { return app.visibleWindows().empty(); }));
  auto second = app.start();
  EXPECT_TRUE(exitedCleanly(second->waitExit(30s))) << "the second start did not hand over";
  EXPECT_TRUE(eventually([&] { return app.visibleWindows() == std::vector<unsigned long>{main}; }));

  // The same page all along: it was never reloaded.
  EXPECT_EQ(app.countLog("probe.loaded"), 1u);
  EXPECT_TRUE(app.app().running());
}

enum class QuitPath { TrayMenu, Sigterm };

struct QuitCase {
  std::string name;
  QuitPath path;
  std::string reason;
  friend void PrintTo(const QuitCase& c, std::ostream* os) { *os << c.name; }
};

class DesktopQuitTest : public DesktopWindowTest, public ::testing::WithParamInterface<QuitCase> {};

TEST_P(DesktopQuitTest, ShutsDownOnceAndExits) {
  const auto& c = GetParam();
  auto& app = start();
  waitForMainWindow();
  switch (c.path) {
    case QuitPath::TrayMenu: {
      const auto quit = app.trayEntry("退出");
      ASSERT_TRUE(quit) << "tray menu not exported";
      ASSERT_TRUE(app.clickTrayEntry(*quit));
      break;
    }
    case QuitPath::Sigterm:
      app.app().signal(SIGTERM);
      break;
  }
  EXPECT_TRUE(exitedCleanly(app.app().waitExit(60s))) << app_->output();
  const auto messages = app.logMessages();
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.back(), "native.shutdown.complete");
  EXPECT_EQ(app.countLog("native.shutdown.complete"), 1u);
  EXPECT_EQ(app.countLog("native.app.quit: " + c.reason), 1u);
}

INSTANTIATE_TEST_SUITE_P(Paths, DesktopQuitTest,
                         ::testing::Values(QuitCase{"TrayMenu", QuitPath::TrayMenu, "menu"},
                                           QuitCase{"Sigterm", QuitPath::Sigterm, "signal"}),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace qev::test
