#include <gtest/gtest.h>

#include <regex>

#include "headless_process.h"
#include "temp_home.h"

namespace qev::test {
namespace {

TEST(HeadlessShellTest, AnswersLogsAndSkipsMalformedInput) {
  TempDir dir;
  HeadlessQev qev(dir.path() / "home");
  qev.sendRaw("this is not json");
  qev.send(Json{{"id", 5}, {"name", "getSettings"}});          // number id: dropped
  qev.send(Json{{"id", "9"}, {"args", Json::array()}});        // no name: dropped
  qev.send(Json{{"channel", "nativeLog"}, {"body", {{"message", "login token=s3cret ok"}}}});
  const auto unknown = qev.call("1", "GetConfig", Json::array({{{"password", "pw"}}}));
  ASSERT_TRUE(unknown);
  EXPECT_EQ(*unknown, (Json{{"id", "1"}, {"result", false}}));
  qev.closeInput();
  ASSERT_EQ(qev.waitExit(), 0);

  EXPECT_EQ(qev.answers().size(), 1u);
  EXPECT_NE(qev.stderrText().find("not a JSON object"), std::string::npos);

  const std::string log = qev.logText();
  // Every entry: "[" ISO-8601 UTC stamp "] " message, one per line.
  const std::regex entries(R"((\[\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ\] [^\n]*\n)+)");
  EXPECT_TRUE(std::regex_match(log, entries)) << log;
  const auto messages = qev.logMessages();
  ASSERT_GE(messages.size(), 3u);
  EXPECT_EQ(messages[0], "login token=*** ok");
  EXPECT_EQ(messages[1], R"(native.bridge.call: GetConfig [{"password":"***"}])");
  EXPECT_EQ(messages.back(), "native.shutdown.complete");
  EXPECT_EQ(log.find("s3cret"), std::string::npos);
  EXPECT_EQ(log.find("pw\""), std::string::npos);
}

TEST(HeadlessShellTest, SigtermRunsTheShutdown) {
  TempDir dir;
  HeadlessQev qev(dir.path() / "home");
  ASSERT_TRUE(qev.call("1", "nothing"));
  qev.signal(SIGTERM);
  ASSERT_EQ(qev.waitExit(), 0);
  EXPECT_EQ(qev.logMessages().back(), "native.shutdown.complete");
}

}  // namespace
}  // namespace qev::test
