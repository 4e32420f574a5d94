#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "platforms.h"
#include "recording_logger.h"
#include "storage/auto_launch.h"
#include "temp_home.h"

namespace qev::test {
namespace {

namespace fs = std::filesystem;

TEST(StorageAutoLaunchTextTest, LaunchAgentPropertyList) {
  const std::string expected =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
      "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
      "<plist version=\"1.0\">\n"
      "<dict>\n"
      "  <key>Label</key>\n"
      "  <string>com.qevjs.native</string>\n"
      "  <key>ProgramArguments</key>\n"
      "  <array>\n"
      "    <string>/usr/bin/open</string>\n"
      "    <string>/Users/me/A&amp;B/&lt;QEV&gt; &quot;beta&quot; it's.app</string>\n"
      "  </array>\n"
      "  <key>RunAtLoad</key>\n"
      "  <true/>\n"
      "</dict>\n"
      "</plist>";
  EXPECT_EQ(storage::launchAgentPlist("/Users/me/A&B/<QEV> \"beta\" it's.app"), expected);
}

TEST(StorageAutoLaunchTextTest, DesktopEntry) {
  EXPECT_EQ(storage::autostartDesktopEntry("/usr/bin/qev"),
            "[Desktop Entry]\n"
            "Type=Application\n"
            "Name=QEV\n"
            "Exec=/usr/bin/qev\n"
            "X-GNOME-Autostart-enabled=true\n");
  EXPECT_EQ(storage::autostartDesktopEntry("/home/me/my apps/qev"),
            "[Desktop Entry]\n"
            "Type=Application\n"
            "Name=QEV\n"
            "Exec=\"/home/me/my apps/qev\"\n"
            "X-GNOME-Autostart-enabled=true\n");
}

TEST(StorageAutoLaunchTextTest, ExecEscaping) {
  // Quoted for the Exec rules, % doubled, then every backslash doubled for the string value.
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"/opt/qev/bin/qev", "/opt/qev/bin/qev"},       {"/opt/q-e_v.2/qev", "/opt/q-e_v.2/qev"},
      {"/opt/a b/qev", "\"/opt/a b/qev\""},           {"/opt/a\tb/qev", "\"/opt/a\\tb/qev\""},
      {"/opt/$HOME/qev", "\"/opt/\\\\$HOME/qev\""},   {"/opt/a\"b/qev", "\"/opt/a\\\\\"b/qev\""},
      {"/opt/a`b`/qev", "\"/opt/a\\\\`b\\\\`/qev\""}, {"/opt/a\\b/qev", "\"/opt/a\\\\\\\\b/qev\""},
      {"/opt/it's/qev", "\"/opt/it's/qev\""},         {"/opt/100%/qev", "/opt/100%%/qev"},
      {"/opt/50% off/qev", "\"/opt/50%% off/qev\""},  {"/opt/a;b&c|d/qev", "\"/opt/a;b&c|d/qev\""},
  };
  for (const auto& [path, escaped] : cases) {
    EXPECT_EQ(storage::escapeDesktopExec(path), escaped) << path;
  }
}

class StorageAutoLaunchTest : public ::testing::TestWithParam<storage::Platform> {
 protected:
  TempDir dir;
  bool macOS = GetParam() == storage::Platform::MacOS;
  storage::Profile profile = profileIn(GetParam(), dir.path());
  const storage::Paths& paths = profile.paths;
  storage::SelectionMemory selection;
  RecordingLogger log;
  storage::SettingsStore settings{paths, selection, log};
  storage::AutoLaunch autoLaunch{profile.platform, paths, settings, log};

  void SetUp() override {
    fs::create_directories(paths.appSupport);
    writeText(paths.settings, R"({"mode": "global", "keep": [1]})");
  }
  std::string expectedText() const {
    return macOS ? storage::launchAgentPlist(paths.appBundle.string())
                 : storage::autostartDesktopEntry(paths.appBundle.string());
  }
};

TEST_P(StorageAutoLaunchTest, EnableWritesTheFileAndMirrorsIt) {
  ASSERT_FALSE(fs::exists(paths.launchAgent.parent_path()));
  auto result = autoLaunch.setAutoLaunch(true);
  ASSERT_TRUE(result);
  EXPECT_EQ(result.value()["autoLaunch"], true);
  EXPECT_EQ(result.value()["keep"], Json::array({1}));
  EXPECT_EQ(readText(paths.launchAgent), expectedText());
  EXPECT_EQ(autoLaunch.fileText(), expectedText());
  EXPECT_EQ(Json::parse(readText(paths.settings))["autoLaunch"], true);
  EXPECT_EQ(log.lines(), std::vector<std::string>{"native.autoLaunch.set: true"});

  // Enabling again rewrites the same text (a stale one is replaced).
  writeText(paths.launchAgent, "stale");
  ASSERT_TRUE(autoLaunch.setAutoLaunch(true));
  EXPECT_EQ(readText(paths.launchAgent), expectedText());
}

TEST_P(StorageAutoLaunchTest, FailureIsLoggedAndRejectedWithoutTouchingTheSettings) {
  writeText(paths.launchAgent.parent_path(), "a file where the folder belongs");
  auto result = autoLaunch.setAutoLaunch(true);
  ASSERT_FALSE(result);
  EXPECT_FALSE(result.error().description.empty());
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_TRUE(log.lines()[0].starts_with("native.autoLaunch.error: ")) << log.lines()[0];
  EXPECT_EQ(readText(paths.settings), R"({"mode": "global", "keep": [1]})");
}

INSTANTIATE_TEST_SUITE_P(Profiles, StorageAutoLaunchTest, test::kBothPlatforms, test::platformName);

}  // namespace
}  // namespace qev::test
