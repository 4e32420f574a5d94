#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platforms.h"
#include "recording_logger.h"
#include "storage/settings_store.h"
#include "temp_home.h"

namespace qev::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDefaultFile = R"({
  "apiBase": "",
  "autoLaunch": false,
  "lastSelectedProxyGroup": "SELECT",
  "lastSelectedProxyName": "",
  "mode": "rule",
  "proxyEnabled": false,
  "tun": false
})";

// Both platform profiles keep the same settings file; only its folder differs.
class StorageSettingsTest : public ::testing::TestWithParam<storage::Platform> {
 protected:
  TempDir dir;
  storage::Profile profile = profileIn(GetParam(), dir.path());
  const storage::Paths& paths = profile.paths;
  storage::SelectionMemory selection;
  RecordingLogger log;
  storage::SettingsStore store{paths, selection, log};

  void SetUp() override { fs::create_directories(paths.appSupport); }
  Json fileJson() const { return Json::parse(readText(paths.settings)); }
};

TEST_P(StorageSettingsTest, FirstStartWritesTheSevenDefaultsSortedAndIndented) {
  store.ensureLocalSettings();
  EXPECT_EQ(readText(paths.settings), kDefaultFile);
  EXPECT_EQ(store.readSettings(), Json::parse(kDefaultFile));
}

TEST_P(StorageSettingsTest, MalformedFilesReadAsDefaultsAndAreReplacedOnlyAtStartUp) {
  const std::vector<std::string> malformed = {
      "[1, 2]",         "null",       "42",
      "\"text\"",       "",           "{\"mode\": \"glo",
      "{\"tun\": tru}", "\xff\xfe{}", "{\"apiBase\": \"\xc3\x28\"}",
  };
  for (const auto& text : malformed) {
    writeText(paths.settings, text);
    EXPECT_EQ(store.readSettings(), Json::parse(kDefaultFile)) << text;
    EXPECT_EQ(readText(paths.settings), text) << "reading must not write";
    store.ensureLocalSettings();
    EXPECT_EQ(readText(paths.settings), kDefaultFile) << text;
  }
}

TEST_P(StorageSettingsTest, RepairNormalisesModeMirrorsAutoLaunchAndKeepsUnknownKeys) {
  struct Case {
    Json stored;
    std::string mode;
  };
  const std::vector<Case> cases = {
      {{{"mode", "Global"}}, "global"}, {{{"mode", " 全局模式 "}}, "global"},
      {{{"mode", "DIRECT"}}, "direct"}, {{{"mode", "sometimes"}}, "rule"},
      {{{"mode", 3}}, "rule"},          {{{"mode", nullptr}}, "rule"},
  };
  for (const auto& c : cases) {
    Json stored = c.stored;
    stored["autoLaunch"] = true;  // no launch file exists
    stored["legacyKey"] = {{"nested", Json::array({1, 2.5, "x"})}};
    stored["tun"] = true;
    writeText(paths.settings, stored.dump());
    EXPECT_EQ(store.readSettings()["mode"], c.mode) << c.stored;
    EXPECT_EQ(store.readModeSetting(), c.mode);
    store.ensureLocalSettings();
    const Json file = fileJson();
    EXPECT_EQ(file["mode"], c.mode) << c.stored;
    EXPECT_EQ(file["autoLaunch"], false);
    EXPECT_EQ(file["legacyKey"], stored["legacyKey"]);
    EXPECT_EQ(file["tun"], true);
    EXPECT_EQ(file.size(), 8u);
  }
}

TEST_P(StorageSettingsTest, PersistProxyEnabledRewritesOnlyItsKey) {
  writeText(paths.settings, R"({"mode": "global", "old": "kept", "lastSelectedProxyName": "A"})");
  store.persistProxyEnabled(true);
  Json file = fileJson();
  EXPECT_EQ(file["proxyEnabled"], true);
  EXPECT_EQ(file["old"], "kept");
  EXPECT_EQ(file["mode"], "global");
  EXPECT_EQ(file["lastSelectedProxyName"], "A");
  store.persistProxyEnabled(false);
  EXPECT_EQ(fileJson()["proxyEnabled"], false);
  EXPECT_TRUE(log.lines().empty());
}

TEST_P(StorageSettingsTest, WriteFailuresAreReportedNotThrown) {
  fs::remove_all(paths.appSupport);
  writeText(paths.appSupport, "a file where the data folder belongs");
  store.ensureLocalSettings();  // silent
  EXPECT_EQ(store.readSettings(), Json::parse(kDefaultFile));
  store.persistProxyEnabled(true);
  const auto messages = log.lines();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_TRUE(messages[0].starts_with("native.proxyEnabled.save.error: ")) << messages[0];
  EXPECT_TRUE(store.update([](Json& s) { s["tun"] = true; }));
}

TEST_P(StorageSettingsTest, ConcurrentWritersLoseNoUpdate) {
  store.ensureLocalSettings();
  constexpr int kWriters = 6;
  constexpr int kRounds = 25;
  std::vector<std::thread> writers;
  for (int w = 0; w < kWriters; ++w) {
    writers.emplace_back([this, w] {
      const std::string key = "counter" + std::to_string(w);
      for (int round = 0; round < kRounds; ++round) {
        (void)store.update([&](Json& s) { s[key] = s.value(key, 0) + 1; });
      }
    });
  }
  for (auto& writer : writers) writer.join();
  const Json file = fileJson();
  for (int w = 0; w < kWriters; ++w)
    EXPECT_EQ(file.value("counter" + std::to_string(w), 0), kRounds);
}

INSTANTIATE_TEST_SUITE_P(Profiles, StorageSettingsTest, test::kBothPlatforms, test::platformName);

}  // namespace
}  // namespace qev::test
