#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/cipher.h"
#include "base/json.h"
#include "net/url.h"
#include "qev/deployment.h"
#include "relay/api_base.h"
#include "relay/http_relay.h"
#include "relay/login_compat.h"
#include "relay/relay_urls.h"

namespace qev::relay {
namespace {

template <class T>
struct Case {
  std::string name;
  std::string input;
  T expected;
  friend void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }
};

const auto caseName = [](const auto& info) { return info.param.name; };

// --- login reply adaptation -------------------------------------------------------------

struct LoginCase {
  std::string name;
  std::string body;
  std::string token;
  std::string authData;
  std::string message;
  bool isAdmin = false;
  friend void PrintTo(const LoginCase& c, std::ostream* os) { *os << c.name; }
};

class LoginCompatRewriteTest : public ::testing::TestWithParam<LoginCase> {};

TEST_P(LoginCompatRewriteTest, SuccessRepliesBecomeOneEnvelope) {
  const auto& c = GetParam();
  const Json out = Json::parse(xboardLoginCompatBody(c.body));
  EXPECT_EQ(out["status"], "success");
  EXPECT_EQ(out["success"], true);
  EXPECT_EQ(out["ret"], 1);
  EXPECT_EQ(out["code"], 0);
  EXPECT_EQ(out["error_code"], 0);
  EXPECT_EQ(out["msg"], c.message);
  EXPECT_EQ(out["message"], c.message);
  EXPECT_EQ(out["is_admin"], c.isAdmin);
  EXPECT_EQ(out["data"]["token"], c.token);
  EXPECT_EQ(out["data"]["auth_data"], c.authData);
}

INSTANTIATE_TEST_SUITE_P(
    PanelGenerations, LoginCompatRewriteTest,
    ::testing::Values(
        LoginCase{"v1_bare_jwt",
                  R"({"data":{"token":"0123abcd","is_admin":0,"auth_data":"eyJ.a.b"}})", "0123abcd",
                  "eyJ.a.b", "操作成功", false},
        LoginCase{
            "v2_bearer_kept_verbatim",
            R"({"status":"success","message":"操作成功","data":{"token":"t2","auth_data":"Bearer abc","is_admin":true},"error":null})",
            "t2", "Bearer abc", "操作成功", true},
        LoginCase{"missing_credential_falls_back_to_token", R"({"data":{"token":"only"}})", "only",
                  "only", "操作成功", false},
        LoginCase{"empty_credential_falls_back_to_token",
                  R"({"data":{"token":"tk","auth_data":""},"msg":"登录成功"})", "tk", "tk",
                  "登录成功", false},
        LoginCase{"message_preferred_over_msg",
                  R"({"message":"ok-m","msg":"ok-msg","data":{"token":"a","is_admin":1}})", "a",
                  "a", "ok-m", true},
        LoginCase{"top_level_admin_flag_as_text", R"({"is_admin":"1","data":{"token":"x"}})", "x",
                  "x", "操作成功", true}),
    caseName);

class LoginCompatPassThroughTest : public ::testing::TestWithParam<Case<std::string>> {};

TEST_P(LoginCompatPassThroughTest, BodyIsReturnedByteForByte) {
  EXPECT_EQ(xboardLoginCompatBody(GetParam().input), GetParam().input);
}

INSTANTIATE_TEST_SUITE_P(
    Table, LoginCompatPassThroughTest,
    ::testing::Values(
        Case<std::string>{"v1_wrong_password", R"({"message":"邮箱或密码错误"})", ""},
        Case<std::string>{
            "v2_fail_envelope",
            R"({"status":"fail","message":"邮箱或密码错误","data":null,"error":null})", ""},
        Case<std::string>{"validation_error", R"({"message":"x","errors":{"email":["required"]}})",
                          ""},
        Case<std::string>{"empty_token", R"({"data":{"token":"","auth_data":"a"}})", ""},
        Case<std::string>{"numeric_token", R"({"data":{"token":12345}})", ""},
        Case<std::string>{"data_is_a_string", R"({"data":"token"})", ""},
        Case<std::string>{"token_only_at_top_level", R"({"token":"abc"})", ""},
        Case<std::string>{"json_array", R"([{"data":{"token":"abc"}}])", ""},
        Case<std::string>{"html_page", "<html><body>502 Bad Gateway</body></html>", ""},
        Case<std::string>{"empty", "", ""},
        Case<std::string>{"truncated_json", R"({"data":{"token":"abc")", ""}),
    caseName);

// --- URLs -------------------------------------------------------------------------------

class RewriteControllerUrlTest : public ::testing::TestWithParam<Case<std::string>> {};

TEST_P(RewriteControllerUrlTest, OnlyTheExactAliasPathOnLoopbackChanges) {
  EXPECT_EQ(rewriteLocalControllerURL(GetParam().input), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, RewriteControllerUrlTest,
    ::testing::Values(
        Case<std::string>{"loopback_ip", "http://127.0.0.1:33212/proxies/SELECT",
                          "http://127.0.0.1:33212/proxies/QEV%E5%8A%A0%E9%80%9F"},
        Case<std::string>{"localhost", "http://localhost:33212/proxies/SELECT",
                          "http://localhost:33212/proxies/QEV%E5%8A%A0%E9%80%9F"},
        Case<std::string>{"query_kept", "http://127.0.0.1:33212/proxies/SELECT?x=1",
                          "http://127.0.0.1:33212/proxies/QEV%E5%8A%A0%E9%80%9F?x=1"},
        Case<std::string>{"sub_path_untouched", "http://127.0.0.1:33212/proxies/SELECT/delay?t=1",
                          "http://127.0.0.1:33212/proxies/SELECT/delay?t=1"},
        Case<std::string>{"longer_name_untouched", "http://127.0.0.1:33212/proxies/SELECTED",
                          "http://127.0.0.1:33212/proxies/SELECTED"},
        Case<std::string>{"lower_case_untouched", "http://127.0.0.1:33212/proxies/select",
                          "http://127.0.0.1:33212/proxies/select"},
        Case<std::string>{"other_host_untouched", "https://panel.example.com/proxies/SELECT",
                          "https://panel.example.com/proxies/SELECT"},
        Case<std::string>{"not_a_url", "proxies/SELECT", "proxies/SELECT"}),
    caseName);

class OssConfigRequestTest : public ::testing::TestWithParam<Case<bool>> {};

TEST_P(OssConfigRequestTest, NeedsBothMarkersInTheHost) {
  EXPECT_EQ(isOSSConfigRequest(GetParam().input), GetParam().expected);
}

const std::string kLabel(deployment::kOssHostLabel);

INSTANTIATE_TEST_SUITE_P(
    Table, OssConfigRequestTest,
    ::testing::Values(
        Case<bool>{"bucket_host", "https://qev.oss-cn-hz." + kLabel + ".com/config.json", true},
        Case<bool>{"upper_case_host", "https://QEV.OSS-CN." + kLabel + ".COM/c", true},
        Case<bool>{"label_without_oss", "https://cdn." + kLabel + ".com/c", false},
        Case<bool>{"oss_without_label", "https://oss.example.com/c", false},
        Case<bool>{"markers_only_in_path", "https://example.com/oss/" + kLabel, false},
        Case<bool>{"not_a_url", "oss " + kLabel, false}),
    caseName);

struct ReportCase {
  std::string name;
  std::string base;
  std::string url;
  bool expected;
  friend void PrintTo(const ReportCase& c, std::ostream* os) { *os << c.name; }
};

class UsageReportTest : public ::testing::TestWithParam<ReportCase> {};

TEST_P(UsageReportTest, MatchesTheReportOnThePanelHostOnly) {
  const auto base = net::parseUrl(GetParam().base);
  const auto url = net::parseUrl(GetParam().url);
  ASSERT_TRUE(base && url);
  EXPECT_EQ(isUsageReportRequest(*url, *base), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, UsageReportTest,
    ::testing::Values(ReportCase{"bare_path", "https://p.example",
                                 "https://p.example/v1/guest/report/fake", true},
                      ReportCase{"api_prefixed", "https://p.example",
                                 "https://p.example/api/v1/guest/report/fake", true},
                      ReportCase{"below_base_path", "https://p.example/panel/",
                                 "https://p.example/panel/api/v1/guest/report/fake?x=1", true},
                      ReportCase{"other_host", "https://p.example",
                                 "https://q.example/v1/guest/report/fake", false},
                      ReportCase{"other_path", "https://p.example",
                                 "https://p.example/v1/guest/report/real", false},
                      ReportCase{"longer_path", "https://p.example",
                                 "https://p.example/api/v1/guest/report/fake/x", false}),
    caseName);

TEST(ApiBaseTest, OverrideWinsAndLosesTrailingSlashes) {
  EXPECT_EQ(nativeFallbackAPIBase(std::string(" http://127.0.0.1:4000// \n")),
            "http://127.0.0.1:4000");
}

// --- request record and reply ------------------------------------------------------------

class InvalidRecordTest : public ::testing::TestWithParam<Case<Json>> {};

TEST_P(InvalidRecordTest, RejectedAsInvalidRequest) {
  const Json record = Json::parse(GetParam().input);
  const auto request = requestFromRecord(&record);
  ASSERT_FALSE(request);
  EXPECT_EQ(request.error(), BridgeError::native(3, "invalid request"));
}

INSTANTIATE_TEST_SUITE_P(
    Table, InvalidRecordTest,
    ::testing::Values(
        Case<Json>{"not_an_object", R"("http://h/")", {}},
        Case<Json>{"missing_url", R"({"method":"GET"})", {}},
        Case<Json>{"url_not_a_string", R"({"url":7})", {}},
        Case<Json>{"relative_url", R"({"url":"/api/v1/x"})", {}},
        Case<Json>{"file_url", R"({"url":"file:///etc/passwd"})", {}},
        Case<Json>{"method_with_blank", R"({"url":"http://h/","method":"GET /x"})", {}},
        Case<Json>{
            "header_injection", R"({"url":"http://h/","headers":{"A":"b\r\nHost: evil"}})", {}},
        Case<Json>{"bad_header_name", R"({"url":"http://h/","headers":{"A B":"c"}})", {}},
        Case<Json>{"headers_not_object", R"({"url":"http://h/","headers":["a"]})", {}},
        Case<Json>{"body_object", R"({"url":"http://h/","body":{"a":1}})", {}}),
    caseName);

TEST(ReplyHeadersTest, RepeatedNamesJoinInArrivalOrder) {
  const net::HeaderList headers = {{"Set-Cookie", "a=1"},
                                   {"Content-Type", "text/plain"},
                                   {"set-cookie", "b=2"},
                                   {"Set-Cookie", "c=3"}};
  const Json expected = {{"Set-Cookie", "a=1, b=2, c=3"}, {"Content-Type", "text/plain"}};
  EXPECT_EQ(replyHeaders(headers), expected);
  EXPECT_EQ(replyHeaders({}), Json::object());
}

}  // namespace
}  // namespace qev::relay
