// A qev in headless mode beside the test panel and the test core, with the real gsettings on a
// keyfile backend: the fixture of the end-to-end suites that connect.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <regex>
#include <sstream>

#include "headless_process.h"
#include "temp_home.h"
#include "test_config.h"
#include "test_processes.h"
#include "testing/doubles_harness.h"

namespace qev::test {

class ProxyFlowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    panel_ = std::make_unique<doubles::ChildProcess>(
        doubles::ChildProcess::Options{kFakePanel, {"--port", "0"}, "", {}, dir_.path()});
    ASSERT_TRUE(doubles::waitUntil([&] { return portFromPanel() > 0; }));
    panelBase_ = "http://127.0.0.1:" + std::to_string(portFromPanel());
  }

  int portFromPanel() const {
    std::smatch m;
    const std::string out = panel_->stdoutText();
    return std::regex_search(out, m, std::regex(R"(port=(\d+))")) ? std::stoi(m[1]) : 0;
  }

  std::unique_ptr<HeadlessQev> start(std::map<std::string, std::string> extra = {}) {
    std::map<std::string, std::string> env = {
        {"QEV_API_BASE", panelBase_},
        {"QEV_MIHOMO", kFakeCore},
        {"GSETTINGS_BACKEND", "keyfile"},
        {"XDG_CONFIG_HOME", (dir_.path() / "config").string()},
        {"FAKE_CORE_REQUEST_LOG", (dir_.path() / "core-requests.jsonl").string()},
    };
    for (auto& [k, v] : extra) env[k] = v;
    return std::make_unique<HeadlessQev>(
        HeadlessQev::Options{dir_.path() / "home", env, {"--headless"}});
  }

  // Changes the test panel's settings (its "/__control" knobs).
  bool controlPanel(const Json& changes) const {
    return doubles::http(doubles::HttpCall{"POST",
                                           panelBase_ + "/__control",
                                           changes.dump(),
                                           {"Content-Type: application/json"}})
               .status == 200;
  }

  std::string subscribeLink() const {
    return panelBase_ + "/api/v1/client/subscribe?token=" + kDemoToken;
  }

  // gsettings on the keyfile backend qev writes to in these tests.
  std::string gsettingsCommand(const std::string& arguments) const {
    return "GSETTINGS_BACKEND=keyfile XDG_CONFIG_HOME=" +
           shellQuoted((dir_.path() / "config").string()) + " gsettings " + arguments;
  }

  std::string gsettings(const std::string& schema, const std::string& key) {
    const std::string cmd = gsettingsCommand("get " + schema + " " + key);
    std::string out;
    if (FILE* p = ::popen(cmd.c_str(), "r")) {
      char buf[256];
      while (std::fgets(buf, sizeof buf, p)) out += buf;
      ::pclose(p);
    }
    while (!out.empty() && (out.back() == '\n')) out.pop_back();
    return out;
  }

  void gsettingsSet(const std::string& schema, const std::string& key, const std::string& value) {
    const std::string cmd =
        gsettingsCommand("set " + schema + " " + key + " " + shellQuoted(value));
    ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
  }
  std::string desktopMode() { return gsettings("org.gnome.system.proxy", "mode"); }

  // Connected: a stored subscription, a running core, the system proxy on.
  void connect(HeadlessQev& qev) {
    ASSERT_EQ((*qev.call("c1", "updateConfig", Json::array({subscribeLink()})))["result"], true)
        << qev.logText();
    ASSERT_EQ((*qev.call("c2", "startProxy"))["result"], true) << qev.logText();
    ASSERT_EQ(desktopMode(), "'manual'");
  }

  // The pid of the most recently started core, from the log.
  static int lastCorePid(HeadlessQev& qev) {
    int pid = 0;
    for (const auto& m : qev.logMessages()) {
      if (m.starts_with("native.mihomo.started: ")) pid = std::stoi(m.substr(23));
    }
    return pid;
  }
  static std::size_t countLog(HeadlessQev& qev, const std::string& prefix) {
    std::size_t n = 0;
    for (const auto& m : qev.logMessages()) n += m.starts_with(prefix) ? 1 : 0;
    return n;
  }

  Json settingsFile(HeadlessQev& qev) {
    return Json::parse(readText(qev.dataFolder() / "qevjs-local.json"), nullptr, false);
  }

  static bool logHas(HeadlessQev& qev, const std::string& prefix) {
    return countLog(qev, prefix) > 0;
  }

  TempDir dir_;
  std::unique_ptr<doubles::ChildProcess> panel_;
  std::string panelBase_;
};

}  // namespace qev::test
