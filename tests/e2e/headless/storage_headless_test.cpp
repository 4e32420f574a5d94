// A data folder that cannot be used: qev still starts, answers with defaults and says what
// it could not save.

#include <gtest/gtest.h>

#include <string>

#include "headless_process.h"
#include "temp_home.h"

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

Json resultOf(const std::optional<Json>& answer) {
  if (!answer || !answer->contains("result")) return Json{{"missing", answer.value_or(Json())}};
  return answer->at("result");
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
