#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platforms.h"
#include "recording_logger.h"
#include "storage/data_folder.h"
#include "storage/geo_data.h"
#include "storage/plaintext_cleanup.h"
#include "storage/profile.h"
#include "storage/protected_files.h"
#include "temp_home.h"

namespace qev::test {
namespace {

namespace fs = std::filesystem;

std::set<std::string> namesIn(const fs::path& folder) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

class StorageDataFolderTest : public ::testing::TestWithParam<storage::Platform> {
 protected:
  TempDir dir;
  storage::Profile profile = profileIn(GetParam(), dir.path());
  const storage::Paths& paths = profile.paths;
  RecordingLogger systemLog;
  storage::ProtectedFiles protectedFiles{paths, "tester"};
  storage::PlaintextCleanup cleanup{paths, protectedFiles};
  storage::GeoData geo{paths};

  fs::path legacy(const std::string& name) const { return paths.legacyAppSupport / name; }
  fs::path current(const std::string& name) const { return paths.appSupport / name; }
  void migrate() const { storage::migrateAppSupportDirectoryIfNeeded(paths, systemLog); }
};

// Where an installed program finds its page and scripts: beside bin/ on Linux, inside the
// bundle on macOS.
TEST(ResourcesFolderTest, FoundBesideTheProgramInEitherLayout) {
  TempDir dir;
  const auto root = dir.path();
  fs::create_directories(root / "usr/share/qev");
  fs::create_directories(root / "QEV.app/Contents/Resources");
  fs::create_directories(root / "loose/bin");
  EXPECT_EQ(storage::resourcesBeside(root / "usr/bin/qev"), root / "usr/share/qev");
  EXPECT_EQ(storage::resourcesBeside(root / "QEV.app/Contents/MacOS/QEV"),
            root / "QEV.app/Contents/Resources");
  EXPECT_EQ(storage::resourcesBeside(root / "loose/bin/qev"), fs::path("."));
  EXPECT_EQ(storage::resourcesBeside(""), fs::path("."));
}

TEST_P(StorageDataFolderTest, LegacyFolderAloneIsMovedWhole) {
  writeText(legacy(".qevjs-config.dat"), "hidden");
  writeText(legacy("sub/inner.txt"), "inner");
  const auto old = fs::file_time_type::clock::now() - std::chrono::hours(48);
  fs::last_write_time(legacy(".qevjs-config.dat"), old);
  fs::permissions(paths.legacyAppSupport, fs::perms(0755));

  migrate();

  EXPECT_FALSE(fs::exists(paths.legacyAppSupport));
  EXPECT_EQ(readText(current(".qevjs-config.dat")), "hidden");
  EXPECT_EQ(readText(current("sub/inner.txt")), "inner");
  // One rename: the files keep their timestamps.
  EXPECT_EQ(fs::last_write_time(current(".qevjs-config.dat")), old);
  EXPECT_EQ(permissionsOf(paths.appSupport), 0700u);
  EXPECT_TRUE(systemLog.lines().empty());
}

TEST_P(StorageDataFolderTest, BothFoldersMergeWithTheCurrentOneWinning) {
  writeText(legacy("qevjs-local.json"), R"({"mode":"global"})");
  writeText(legacy(".qevjs-subscribe.dat"), "legacy subscription");
  writeText(legacy("backups/a/b.txt"), "deep");
  writeText(current("qevjs-local.json"), R"({"mode":"direct"})");
  fs::create_directories(current("backups"));  // a folder of the same name also wins
  fs::permissions(paths.appSupport, fs::perms(0755));

  migrate();

  EXPECT_FALSE(fs::exists(paths.legacyAppSupport));
  EXPECT_EQ(readText(current("qevjs-local.json")), R"({"mode":"direct"})");
  EXPECT_EQ(readText(current(".qevjs-subscribe.dat")), "legacy subscription");
  EXPECT_TRUE(fs::is_empty(current("backups")));
  EXPECT_EQ(permissionsOf(paths.appSupport), 0700u);
  EXPECT_TRUE(systemLog.lines().empty());
}

TEST_P(StorageDataFolderTest, OldPlainFilesBecomeProtectedAndThePlainFileAlwaysWins) {
  writeText(paths.legacyTmpYaml, "proxies: [plain-subscription]\n");
  writeText(paths.legacyConfigYaml, "mode: global\n");
  ASSERT_FALSE(protectedFiles.writeProtectedData("older subscription", paths.protectedRawConfig));
  cleanup.migratePlaintextConfigsIfNeeded();

  EXPECT_FALSE(fs::exists(paths.legacyTmpYaml));
  EXPECT_FALSE(fs::exists(paths.legacyConfigYaml));
  EXPECT_EQ(protectedFiles.readProtectedData(paths.protectedRawConfig),
            "proxies: [plain-subscription]\n");
  EXPECT_EQ(protectedFiles.readProtectedData(paths.protectedConfig), "mode: global\n");
  EXPECT_EQ(permissionsOf(paths.protectedRawConfig), 0600u);
}

TEST_P(StorageDataFolderTest, LeftoverRules) {
  struct Item {
    std::string name;
    bool folder;
    bool kept;
  };
  const std::vector<Item> items = {
      {"backup-2024", true, false},
      {"config-backup", true, false},
      {"my-backup-old", true, false},
      {"backup-notes.txt", false, true},
      {"notes-backup", false, true},
      {"backups", true, true},
      {"tmp.yaml", false, false},
      {"config.yaml", true, false},  // a folder of that name goes too
      {"qevjs-full.yaml", false, false},
      {"tmp.yaml.before-fix-test.yaml", false, false},
      {"old.before-fix-test.yaml", false, false},
      {"old.before-fix-test.yml", false, true},
      {"Country.mmdb", false, true},
      {"qevjs-local.json", false, true},
      {".qevjs-subscribe.dat", false, true},
      // temporary files of interrupted atomic writes
      {".qevjs-subscribe.dat.tmp-a1B2c3", false, false},
      {".qevjs-local.json.tmp-XyZ789", false, false},
      {".qevjs-local.json.tmp-abc", false, true},
      {"qevjs-local.json.tmp-abc123", false, true},
      {".cache.tmp-abc123", true, true},
  };
  for (const auto& item : items) {
    writeText(item.folder ? current(item.name) / "inside.yaml" : current(item.name), "x");
  }
  cleanup.cleanupLegacyPlaintextArtifacts();
  std::set<std::string> expected;
  for (const auto& item : items) {
    if (item.kept) expected.insert(item.name);
  }
  EXPECT_EQ(namesIn(paths.appSupport), expected);
}

TEST_P(StorageDataFolderTest, NoPlaintextSurvivesAStart) {
  const std::string marker = "password: plain-credential";
  for (const char* name :
       {"tmp.yaml", "config.yaml", ".qevjs-runtime-tmp.yaml", ".qevjs-runtime-config.yaml",
        "qevjs-full.yaml", "tmp.yaml.before-fix-test.yaml", "x.before-fix-test.yaml",
        "backup-1/tmp.yaml", "old-backup/config.yaml"}) {
    writeText(current(name), marker + "\n");
  }
  cleanup.runAtStartup();
  for (const auto& entry : fs::recursive_directory_iterator(paths.appSupport)) {
    if (entry.is_regular_file()) {
      EXPECT_EQ(readText(entry.path()).find(marker), std::string::npos) << entry.path();
    }
  }
  EXPECT_EQ(namesIn(paths.appSupport),
            (std::set<std::string>{".qevjs-subscribe.dat", ".qevjs-config.dat"}));
  EXPECT_EQ(protectedFiles.readProtectedData(paths.protectedRawConfig), marker + "\n");
}

TEST_P(StorageDataFolderTest, GeoDataIsCopiedOnlyWhereNoNonEmptyCopyExists) {
  fs::create_directories(paths.appSupport);
  writeText(paths.libs / "Country.mmdb", "shipped country");
  writeText(paths.libs / "geoip.metadb", "shipped geoip");
  writeText(paths.libs / "GeoSite.dat", "shipped geosite");
  writeText(current("Country.mmdb"), "user-updated, larger country database");
  writeText(current("geoip.metadb"), "");

  geo.ensureGeoDataFiles();
  EXPECT_EQ(readText(current("Country.mmdb")), "user-updated, larger country database");
  EXPECT_EQ(fs::file_size(current("geoip.metadb")), 0u);  // an empty file is not replaced
  EXPECT_EQ(readText(current("GeoSite.dat")), "shipped geosite");

  fs::remove(current("geoip.metadb"));
  geo.ensureGeoDataFiles();
  EXPECT_EQ(readText(current("geoip.metadb")), "shipped geoip");
}

INSTANTIATE_TEST_SUITE_P(Profiles, StorageDataFolderTest, test::kBothPlatforms, test::platformName);

}  // namespace
}  // namespace qev::test
