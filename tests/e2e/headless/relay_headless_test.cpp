// The relay commands as the page reaches them: through `qev --headless`, with the panel base from
// QEV_API_BASE, links opened by an xdg-open found on PATH.

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "base/json.h"
#include "headless_process.h"
#include "temp_home.h"
#include "test_config.h"
#include "test_processes.h"
#include "testing/doubles_harness.h"

namespace qev::test {
namespace {

namespace fs = std::filesystem;

// A stand-in for the desktop's link handler that records the links it was given, one a line.
void writeRecordingOpener(const fs::path& folder, const fs::path& record) {
  const fs::path program = folder / "xdg-open";
  writeText(program, "#!/bin/sh\nprintf '%s\\n' \"$*\" >> '" + record.string() + "'\n");
  fs::permissions(program, fs::perms::owner_all);
}

class RelayHeadlessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_STRNE(kFakePanel, "") << "fake_panel was not built";
    panel_ = std::make_unique<doubles::ChildProcess>(
        doubles::ChildProcess::Options{kFakePanel, {"--port", "0"}, "", {}, dir_.path()});
    ASSERT_TRUE(
        doubles::waitUntil([&] { return panel_->stdoutText().find('\n') != std::string::npos; }));
    const std::string first = panel_->stdoutText();
    ASSERT_EQ(first.rfind("port=", 0), 0u) << first;
    panelBase_ = "http://127.0.0.1:" + std::to_string(std::stoi(first.substr(5)));
    fs::create_directories(bin_);
  }

  HeadlessQev::Options options(const std::string& searchPath) const {
    return {dir_.path() / "home",
            {{"QEV_API_BASE", panelBase_ + "/"}, {"PATH", searchPath}},
            {"--headless"}};
  }

  TempDir dir_;
  fs::path bin_ = dir_.path() / "bin";
  std::unique_ptr<doubles::ChildProcess> panel_;
  std::string panelBase_;
};

TEST_F(RelayHeadlessTest, RequestsGoThroughAndTheReportStaysLocal) {
  HeadlessQev qev(options(bin_.string()));
  const auto report = qev.call(
      "1", "httpRequest",
      Json::array({{{"method", "POST"}, {"url", panelBase_ + "/api/v1/guest/report/fake"}}}));
  ASSERT_TRUE(report && report->contains("result")) << (report ? report->dump() : "no answer");
  EXPECT_EQ((*report)["result"]["body"], "{\"data\":true}");

  const std::string login = Json{{"email", "demo@qev.test"}, {"password", kDemoPassword}}.dump();
  const auto reply = qev.call("2", "httpRequest",
                              Json::array({{{"method", "POST"},
                                            {"url", panelBase_ + "/api/v1/passport/auth/login"},
                                            {"headers", {{"Content-Type", "application/json"}}},
                                            {"body", login}}}));
  ASSERT_TRUE(reply && reply->contains("result")) << (reply ? reply->dump() : "no answer");
  const Json body = Json::parse((*reply)["result"]["body"].get<std::string>());
  EXPECT_EQ(body["ret"], 1);
  EXPECT_EQ(body["data"]["token"], kDemoToken);

  const auto invalid = qev.call("3", "httpRequest", Json::array({{{"url", "/api/v1/x"}}}));
  ASSERT_TRUE(invalid);
  EXPECT_EQ((*invalid)["error"], "invalid request");

  const Json sent = Json::parse(doubles::httpGet(panelBase_ + "/__requests").body);
  ASSERT_EQ(sent.size(), 1u) << sent.dump();
  EXPECT_EQ(sent[0]["path"], "/api/v1/passport/auth/login");

  qev.closeInput();
  EXPECT_EQ(qev.waitExit(), 0);
  const std::string log = qev.logText();
  EXPECT_NE(log.find("native.http.mock: POST 200 13b"), std::string::npos);
  EXPECT_NE(log.find("native.login.response: "), std::string::npos);
  EXPECT_EQ(log.find(kDemoToken), std::string::npos);
  EXPECT_EQ(log.find(kDemoPassword), std::string::npos);
}

TEST_F(RelayHeadlessTest, CheckedLinksAreHandedToXdgOpen) {
  const fs::path record = dir_.path() / "opened.txt";
  writeRecordingOpener(bin_, record);
  HeadlessQev qev(options(bin_.string()));

  const auto opened =
      qev.call("1", "openExternal", Json::array({"  //panel.example.com/#/ticket\n"}));
  ASSERT_TRUE(opened);
  EXPECT_EQ((*opened)["result"], true);
  const auto mail = qev.call("2", "openExternal", Json::array({"MAILTO:help@example.com"}));
  ASSERT_TRUE(mail);
  EXPECT_EQ((*mail)["result"], true);
  const auto file = qev.call("3", "openExternal", Json::array({"file:///etc/passwd"}));
  ASSERT_TRUE(file);
  EXPECT_EQ((*file)["error"], "invalid external URL");
  const auto blank = qev.call("4", "openExternal", Json::array({" \t"}));
  ASSERT_TRUE(blank);
  EXPECT_EQ((*blank)["error"], "missing external URL");

  EXPECT_TRUE(eventually([&] {
    return readText(record) == "https://panel.example.com/#/ticket\nMAILTO:help@example.com\n";
  })) << readText(record);
  qev.closeInput();
  EXPECT_EQ(qev.waitExit(), 0);
  EXPECT_NE(qev.logText().find("native.openExternal: https://panel.example.com/#/ticket"),
            std::string::npos);
}

}  // namespace
}  // namespace qev::test
