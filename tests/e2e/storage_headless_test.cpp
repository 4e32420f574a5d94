#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "headless_process.h"
#include "storage/auto_launch.h"
#include "storage/protected_files.h"
#include "temp_home.h"
#include "test_config.h"

namespace qev::test {
namespace {

namespace fs = std::filesystem;

const Json kDefaults = {
    {"apiBase", ""},
    {"autoLaunch", false},
    {"lastSelectedProxyGroup", "SELECT"},
    {"lastSelectedProxyName", ""},
    {"mode", "rule"},
    {"proxyEnabled", false},
    {"tun", false},
};

// The login name the child process masks protected files with.
std::string loginName() {
  const passwd* pw = ::getpwuid(::geteuid());
  return pw != nullptr ? pw->pw_name : "";
}

Json resultOf(const std::optional<Json>& answer) {
  if (!answer || !answer->contains("result")) return Json{{"missing", answer.value_or(Json())}};
  return answer->at("result");
}

TEST(StorageHeadlessTest, FirstStartCreatesTheFolderAndTheDefaultSettings) {
  TempDir dir;
  const fs::path home = dir.path() / "home";
  HeadlessQev qev({home});
  EXPECT_EQ(resultOf(qev.call("1", "getSettings")), kDefaults);
  const fs::path data = home / ".local/share/qevjs";
  EXPECT_EQ(permissionsOf(data), 0700u);
  EXPECT_EQ(Json::parse(readText(data / "qevjs-local.json")), kDefaults);
  qev.closeInput();
  EXPECT_EQ(qev.waitExit(), 0);
}

TEST(StorageHeadlessTest, SetAutoLaunchAcceptsEveryFormOfTrue) {
  TempDir dir;
  const fs::path home = dir.path() / "home";
  const fs::path entry = home / ".config/autostart/com.qevjs.native.desktop";
  HeadlessQev qev({home});
  const std::string expected = storage::autostartDesktopEntry(fs::canonical(kQevBinary).string());
  int id = 0;
  for (const Json& on : {Json(true), Json("开启"), Json{{"openAtLogin", true}}}) {
    const Json settings =
        resultOf(qev.call(std::to_string(++id), "setAutoLaunch", Json::array({on})));
    EXPECT_EQ(settings.value("autoLaunch", false), true) << on << settings;
    EXPECT_EQ(readText(entry), expected) << on;
    EXPECT_EQ(resultOf(qev.call(std::to_string(++id), "getSettings"))["autoLaunch"], true);
    const Json off =
        resultOf(qev.call(std::to_string(++id), "setAutoLaunch", Json::array({false})));
    EXPECT_EQ(off.value("autoLaunch", true), false) << off;
    EXPECT_FALSE(fs::exists(entry));
  }
  // Anything that is not a recognised "true" switches it off.
  ASSERT_TRUE(qev.call("on", "setAutoLaunch", Json::array({true})));
  EXPECT_EQ(resultOf(qev.call("num", "setAutoLaunch", Json::array({1})))["autoLaunch"], false);
  qev.closeInput();
  EXPECT_EQ(qev.waitExit(), 0);
  const auto messages = qev.logMessages();
  EXPECT_NE(std::find(messages.begin(), messages.end(), "native.autoLaunch.set: true"),
            messages.end());
}

TEST(StorageHeadlessTest, PlaintextSubscriptionOfAnOlderVersionIsProtected) {
  TempDir dir;
  const fs::path home = dir.path() / "home";
  const fs::path data = home / ".local/share/qevjs";
  const std::string subscription = "proxies:\n  - {name: a, password: plain-secret}\n";
  writeText(data / "tmp.yaml", subscription);
  writeText(data / ".qevjs-runtime-config.yaml", "left by a crash: plain-secret\n");
  HeadlessQev qev({home});
  ASSERT_TRUE(qev.call("1", "getSettings"));

  EXPECT_FALSE(fs::exists(data / "tmp.yaml"));
  EXPECT_FALSE(fs::exists(data / ".qevjs-runtime-config.yaml"));
  const std::string stored = readText(data / ".qevjs-subscribe.dat");
  EXPECT_TRUE(stored.starts_with("QEVJS1\n"));
  EXPECT_EQ(stored.find("plain-secret"), std::string::npos);
  EXPECT_EQ(storage::decodeProtected(stored, loginName()), subscription);
  EXPECT_EQ(permissionsOf(data / ".qevjs-subscribe.dat"), 0600u);

  // A runtime copy written during the run is gone after the shutdown too.
  writeText(data / ".qevjs-runtime-config.yaml", "written for the core: plain-secret\n");
  qev.closeInput();
  EXPECT_EQ(qev.waitExit(), 0);
  EXPECT_FALSE(fs::exists(data / ".qevjs-runtime-config.yaml"));
}

TEST(StorageHeadlessTest, LegacyFolderIsMovedAndItsSettingsLoaded) {
  TempDir dir;
  const fs::path home = dir.path() / "home";
  const fs::path legacy = home / ".local/share/merivox";
  writeText(legacy / "qevjs-local.json",
            R"({"mode":"全局","lastSelectedProxyName":"HK 01","proxyEnabled":"true","x":1})");
  writeText(legacy / "tmp.yaml", "proxies: []\n");
  HeadlessQev qev({home});
  const Json settings = resultOf(qev.call("1", "getSettings"));
  EXPECT_EQ(settings["mode"], "global");
  EXPECT_EQ(settings["lastSelectedProxyName"], "HK 01");
  EXPECT_EQ(settings["lastSelectedProxyGroup"], "SELECT");
  EXPECT_EQ(settings["x"], 1);
  EXPECT_FALSE(fs::exists(legacy));
  const fs::path data = home / ".local/share/qevjs";
  EXPECT_EQ(permissionsOf(data), 0700u);
  EXPECT_TRUE(fs::exists(data / ".qevjs-subscribe.dat"));
  EXPECT_FALSE(fs::exists(data / "tmp.yaml"));
  qev.closeInput();
  EXPECT_EQ(qev.waitExit(), 0);
}

TEST(StorageHeadlessTest, BrokenSettingsAndGeoDataAtStart) {
  TempDir dir;
  const fs::path home = dir.path() / "home";
  const fs::path data = home / ".local/share/qevjs";
  const fs::path resources = dir.path() / "resources";
  writeText(resources / "libs/linux/Country.mmdb", "country");
  writeText(resources / "libs/linux/GeoSite.dat", "geosite");
  writeText(data / "qevjs-local.json", "[\"not\", \"an object\"]");
  writeText(data / "GeoSite.dat", "");
  HeadlessQev qev({home, {{"QEV_RESOURCES_DIR", resources.string()}}});
  EXPECT_EQ(resultOf(qev.call("1", "getSettings")), kDefaults);
  EXPECT_EQ(Json::parse(readText(data / "qevjs-local.json")), kDefaults);
  EXPECT_EQ(readText(data / "Country.mmdb"), "country");
  EXPECT_FALSE(fs::exists(data / "geoip.metadb"));
  EXPECT_EQ(fs::file_size(data / "GeoSite.dat"), 0u);
  qev.closeInput();
  EXPECT_EQ(qev.waitExit(), 0);
}

TEST(StorageHeadlessTest, UnusableDataFolderStillStartsAndAnswers) {
  TempDir dir;
  const fs::path home = dir.path() / "home";
  writeText(home / ".local/share/qevjs", "a file where the data folder belongs");
  HeadlessQev qev({home});
  EXPECT_EQ(resultOf(qev.call("1", "getSettings")), kDefaults);
  const auto answer = qev.call("2", "setAutoLaunch", Json::array({true}));
  ASSERT_TRUE(answer);
  EXPECT_TRUE(answer->contains("error")) << *answer;  // the settings cannot be written
  qev.closeInput();
  EXPECT_EQ(qev.waitExit(), 0);
  EXPECT_EQ(readText(home / ".local/share/qevjs"), "a file where the data folder belongs");
}

}  // namespace
}  // namespace qev::test
