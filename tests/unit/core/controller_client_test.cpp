#include "controller/controller_client.h"
#include "awaited.h"
#include "recording_logger.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "net_loopback_server.h"

namespace qev::proxies {
namespace {

using test::RecordingLogger;

TEST(PercentEncodePathComponentTest, EscapesEverythingThatCouldSplitThePath) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"a/b c", "a%2Fb%20c"},
      {"\xe8\x8a\x82\xe7\x82\xb9\xe9\x80\x89\xe6\x8b\xa9", "%E8%8A%82%E7%82%B9%E9%80%89%E6%8B%A9"},
      {"?#", "%3F%23"},
      {"A-Z_a.z~0:9", "A-Z_a.z~0:9"},
      {"100%", "100%25"},
      {"\xf0\x9f\x87\xad\xf0\x9f\x87\xb0 HK", "%F0%9F%87%AD%F0%9F%87%B0%20HK"},
      {"", ""},
  };
  for (const auto& [name, encoded] : cases)
    EXPECT_EQ(controller::percentEncodePathComponent(name), encoded);
}

class ControllerClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto& http = server_.server();
    // Reports what arrived so tests can see the request as the controller saw it.
    http.Put("/echo", [](const httplib::Request& req, httplib::Response& res) {
      const Json seen = {
          {"contentType",
           req.has_header("Content-Type") ? req.get_header_value("Content-Type") : "<absent>"},
          {"body", req.body}};
      res.set_content(seen.dump() + "\n", "application/json");
    });
    http.Get("/echo", [](const httplib::Request& req, httplib::Response& res) {
      const Json seen = {
          {"contentType",
           req.has_header("Content-Type") ? req.get_header_value("Content-Type") : "<absent>"},
          {"body", req.body}};
      res.set_content(seen.dump(), "application/json");
    });
    http.Delete("/connections",
                [](const httplib::Request&, httplib::Response& res) { res.status = 204; });
    http.Get("/missing", [](const httplib::Request&, httplib::Response& res) {
      res.status = 404;
      res.set_content("{\"message\":\"Resource not found\"}\n", "application/json");
    });
    http.Get("/list", [](const httplib::Request&, httplib::Response& res) {
      res.set_content("[1,2]", "application/json");
    });
    http.Get("/text", [](const httplib::Request&, httplib::Response& res) {
      res.status = 404;
      res.set_content("404 page not found", "text/plain");
    });
    http.Get("/scalar", [](const httplib::Request&, httplib::Response& res) {
      res.set_content("\"hello\"", "application/json");
    });
    server_.start();
    client_ = std::make_unique<controller::ControllerClient>(session_, log_, server_.base());
  }

  Result<Json> call(const std::string& method, const std::string& url,
                    std::optional<Json> body = std::nullopt) {
    return test::awaited<Result<Json>>(
        [&](auto done) { client_->httpJSON(method, url, std::move(body), done); });
  }

  test::LoopbackServer server_;
  base::Executors executors_{2};
  net::HttpSession session_{executors_};
  RecordingLogger log_;
  std::unique_ptr<controller::ControllerClient> client_;
};

TEST_F(ControllerClientTest, DecodesRepliesWithoutLookingAtTheStatus) {
  auto noContent = call("DELETE", server_.url("/connections"));
  ASSERT_TRUE(noContent.ok()) << noContent.error().description;
  EXPECT_EQ(noContent.value(), Json(true));

  auto missing = call("GET", server_.url("/missing"));
  ASSERT_TRUE(missing.ok());
  EXPECT_EQ(missing.value(), Json({{"message", "Resource not found"}}));

  auto list = call("GET", server_.url("/list"));
  ASSERT_TRUE(list.ok());
  EXPECT_EQ(list.value(), Json::array({1, 2}));

  EXPECT_FALSE(call("GET", server_.url("/text")).ok());
  auto scalar = call("GET", server_.url("/scalar"));
  ASSERT_FALSE(scalar.ok());
  EXPECT_FALSE(scalar.error().description.empty());
}

TEST_F(ControllerClientTest, BodyGoesOutAsCompactJsonWithContentType) {
  auto withBody = call("PUT", server_.url("/echo"), Json{{"name", "\xe8\x8a\x82 1"}});
  ASSERT_TRUE(withBody.ok()) << withBody.error().description;
  EXPECT_EQ(withBody.value()["contentType"], "application/json");
  EXPECT_EQ(withBody.value()["body"], "{\"name\":\"\xe8\x8a\x82 1\"}");

  auto without = call("GET", server_.url("/echo"));
  ASSERT_TRUE(without.ok());
  EXPECT_EQ(without.value()["contentType"], "<absent>");
  EXPECT_EQ(without.value()["body"], "");

  // A body that cannot be serialised is dropped; the request still goes out with its type.
  auto unserialisable = call("PUT", server_.url("/echo"), Json{{"name", "\xff"}});
  ASSERT_TRUE(unserialisable.ok());
  EXPECT_EQ(unserialisable.value()["contentType"], "application/json");
  EXPECT_EQ(unserialisable.value()["body"], "");
}

TEST_F(ControllerClientTest, CloseConnectionsLogsEitherOutcome) {
  test::awaitedDone([&](auto done) { client_->closeConnections(done); });

  RecordingLogger deadLog;
  controller::ControllerClient dead(session_, deadLog, "http://127.0.0.1:1");
  test::awaitedDone([&](auto done) { dead.closeConnections(done); });

  EXPECT_EQ(log_.lines(), std::vector<std::string>{"native.connections.closed"});
  ASSERT_EQ(deadLog.lines().size(), 1u);
  EXPECT_EQ(deadLog.lines()[0].rfind("native.connections.close.error: Failed to connect to", 0), 0u)
      << deadLog.lines()[0];
}

}  // namespace
}  // namespace qev::proxies
