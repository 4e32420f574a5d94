#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "base/main_queue.h"
#include "bridge/native_bridge.h"
#include "temp_home.h"

namespace qev::bridge {
namespace {

// The system proxy as the bridge wires it on Linux: the saved wish, the settings file and the
// real gsettings on a private keyfile backend.
class SystemProxyWiringTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("GSETTINGS_BACKEND", "keyfile", 1);
    ::setenv("XDG_CONFIG_HOME", (dir_.path() / "gsettings-config").c_str(), 1);
    profile_ = storage::Profile::forLinux(test::environmentIn(dir_.path()));
  }

  std::unique_ptr<NativeBridge> makeBridge() {
    return std::make_unique<NativeBridge>(
        profile_, ShellSeams{std::make_shared<base::ManualMainQueue>(), nullptr});
  }
  void writeSettings(const Json& settings) {
    test::writeText(profile_.paths.settings, settings.dump());
  }
  Json savedSettings() const { return Json::parse(test::readText(profile_.paths.settings)); }

  std::vector<std::string> logMessages(const NativeBridge& bridge) const {
    std::vector<std::string> lines;
    std::istringstream in(test::readText(bridge.log().file()));
    for (std::string line; std::getline(in, line);)
      lines.push_back(line.substr(line.find("] ") + 2));
    return lines;
  }

  // Runs one request and waits for its completion.
  static void request(NativeBridge& bridge, bool enabled, const std::string& reason) {
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    bridge.systemProxy().requestSystemProxy(enabled, reason, [&] {
      std::lock_guard lock(mutex);
      finished = true;
      done.notify_all();
    });
    std::unique_lock lock(mutex);
    done.wait(lock, [&] { return finished; });
  }

  test::TempDir dir_;
  storage::Profile profile_;
};

TEST_F(SystemProxyWiringTest, RequestsAreSavedSwitchedThroughGsettingsAndLogged) {
  auto bridge = makeBridge();
  request(*bridge, true, "startProxy.confirm");
  EXPECT_EQ(savedSettings()["proxyEnabled"], true);
  request(*bridge, false, "stopProxy");
  EXPECT_EQ(savedSettings()["proxyEnabled"], false);
  EXPECT_FALSE(bridge->systemProxy().isSystemProxyDesired());

  std::vector<std::string> proxyLines;
  for (const auto& line : logMessages(*bridge)) {
    if (line.starts_with("native.gsettings.") || line.starts_with("native.systemProxy.")) {
      proxyLines.push_back(line);
    }
  }
  EXPECT_EQ(proxyLines,
            (std::vector<std::string>{
                "native.gsettings.enable: ok=true",
                "native.systemProxy.applied: startProxy.confirm enabled=true revision=1",
                "native.gsettings.disable: ok=true",
                "native.systemProxy.applied: stopProxy enabled=false revision=2",
            }));
}

}  // namespace
}  // namespace qev::bridge
