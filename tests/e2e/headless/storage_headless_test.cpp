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
