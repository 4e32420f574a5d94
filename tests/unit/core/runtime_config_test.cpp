#include "core/runtime_config.h"

#include <gtest/gtest.h>

#include "recording_logger.h"
#include "storage/selection_memory.h"
#include "temp_home.h"

namespace qev::core {
namespace {

class RuntimeConfigTest : public ::testing::Test {
 protected:
  RuntimeConfigTest()
      : profile_(storage::Profile::forLinux(test::environmentIn(dir_.path(), "alice"))),
        paths_(profile_.paths),
        files_(paths_, "alice"),
        settings_(paths_, selection_, log_),
        config_(paths_, files_, settings_, controller_, log_) {
    std::filesystem::create_directories(paths_.appSupport);
  }

  std::string decoded(const std::filesystem::path& file) { return *files_.readProtectedData(file); }

  test::TempDir dir_;
  storage::Profile profile_;
  const storage::Paths& paths_;
  storage::SelectionMemory selection_;
  test::RecordingLogger log_;
  storage::ProtectedFiles files_;
  storage::SettingsStore settings_;
  base::Executors executors_{1};
  net::HttpSession session_{executors_};
  controller::ControllerClient controller_{session_, log_};
  RuntimeConfig config_;
};

const std::string kSubscription =
    "mixed-port: 7890\n"
    "mode: global\n"
    "proxies:\n"
    "    - { name: HK-01, type: ss, server: a.example, port: 443 }\n"
    "rules:\n"
    "    - 'MATCH,DIRECT'\n";

TEST_F(RuntimeConfigTest, NothingStoredWritesNothing) {
  EXPECT_FALSE(config_.hasRawSubscriptionConfig());
  EXPECT_FALSE(config_.normalizeTmpYaml(true));
  EXPECT_FALSE(std::filesystem::exists(paths_.protectedConfig));
  EXPECT_FALSE(config_.hasRunnableConfig());
  EXPECT_FALSE(config_.prepareRuntimeConfigFile());
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(RuntimeConfigTest, StoredSubscriptionBecomesProtectedAndPlainRuntimeConfig) {
  ASSERT_FALSE(files_.writeProtectedData(kSubscription, paths_.protectedRawConfig));
  ASSERT_FALSE(settings_.update([](Json& s) { s["mode"] = "直连"; }));
  ASSERT_FALSE(config_.normalizeTmpYaml(false));

  const std::string stored = decoded(paths_.protectedConfig);
  EXPECT_EQ(test::readText(paths_.configYaml), stored);
  EXPECT_EQ(test::permissionsOf(paths_.configYaml), 0600u);
  EXPECT_EQ(test::permissionsOf(paths_.protectedConfig), 0600u);
  EXPECT_EQ(stored.find("mixed-port: 7890"), std::string::npos);
  EXPECT_EQ(stored.find("mode: global"), std::string::npos);
  EXPECT_NE(stored.find("mode: direct\n"), std::string::npos);
  EXPECT_NE(stored.find("    - AND,((NETWORK,UDP),(DST-PORT,443)),REJECT\n    - 'MATCH,DIRECT'"),
            std::string::npos);
  EXPECT_EQ(stored.find("tun:"), std::string::npos);
  EXPECT_TRUE(config_.hasRunnableConfig());

  // The core's copy alone carries the controller's secret and CORS grant.
  ASSERT_TRUE(controller_.renewSecret());
  const std::string secret = controller_.secret();
  EXPECT_EQ(secret.size(), 64u);
  ASSERT_TRUE(config_.prepareRuntimeConfigFile());
  EXPECT_EQ(test::readText(paths_.configYaml),
            stored + "secret: " + secret +
                "\nexternal-controller-cors:\n  allow-origins:\n    - qevnative://app\n"
                "  allow-private-network: false\n");
  EXPECT_EQ(decoded(paths_.protectedConfig).find(secret), std::string::npos);
  ASSERT_TRUE(controller_.renewSecret());
  EXPECT_NE(controller_.secret(), secret);
}

TEST_F(RuntimeConfigTest, PrepareRestoresThePlainCopyFromTheProtectedFile) {
  ASSERT_FALSE(files_.writeProtectedData(kSubscription, paths_.protectedRawConfig));
  ASSERT_FALSE(config_.normalizeTmpYaml(true));
  const std::string stored = decoded(paths_.protectedConfig);
  std::filesystem::remove(paths_.configYaml);
  ASSERT_TRUE(config_.prepareRuntimeConfigFile());
  EXPECT_EQ(test::readText(paths_.configYaml), stored);
  EXPECT_NE(stored.find("tun:\n  enable: true"), std::string::npos);
}

TEST_F(RuntimeConfigTest, LegacyConfigIsMigratedOnceAndDeleted) {
  test::writeText(paths_.legacyConfigYaml, "port: 1\n");
  ASSERT_TRUE(config_.prepareRuntimeConfigFile());
  EXPECT_FALSE(std::filesystem::exists(paths_.legacyConfigYaml));
  EXPECT_EQ(decoded(paths_.protectedConfig), "port: 1\n");
  EXPECT_EQ(test::readText(paths_.configYaml), "port: 1\n");
}

TEST_F(RuntimeConfigTest, PlainSubscriptionCopiesOfOlderVersionsAreRead) {
  test::writeText(paths_.legacyTmpYaml, "a: 1\n");
  EXPECT_TRUE(config_.hasRawSubscriptionConfig());
  EXPECT_EQ(config_.readRawSubscriptionConfigText().value(), "a: 1\n");
  test::writeText(paths_.tmpYaml, "b: 2\n");
  EXPECT_EQ(config_.readRawSubscriptionConfigText().value(), "b: 2\n");
}

TEST_F(RuntimeConfigTest, UnwritableDataFolderIsReportedNotThrown) {
  ASSERT_FALSE(files_.writeProtectedData(kSubscription, paths_.protectedRawConfig));
  std::filesystem::create_directory(paths_.configYaml);  // a folder where the file must go
  const auto failure = config_.normalizeTmpYaml(false);
  ASSERT_TRUE(failure);
  EXPECT_NE(failure->description.find(".qevjs-runtime-config.yaml"), std::string::npos);
  EXPECT_FALSE(config_.prepareRuntimeConfigFile());
  ASSERT_FALSE(log_.lines().empty());
  EXPECT_EQ(log_.lines().back().rfind("native.config.runtime.error: ", 0), 0u);
}

}  // namespace
}  // namespace qev::core
