#include "net/http_session.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "awaited.h"
#include "net/url.h"
#include "net_loopback_server.h"

namespace qev::net {
namespace {

using namespace std::chrono_literals;

using test::LoopbackServer;

class HttpSessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Echoes what arrived: method, body and the request headers that matter here.
    server_.server().set_error_handler([](const httplib::Request&, httplib::Response&) {});
    const auto echo = [](const httplib::Request& req, httplib::Response& res) {
      std::string text =
          req.method + "|" + req.body + "|ct=" +
          (req.has_header("Content-Type") ? req.get_header_value("Content-Type") : "<absent>") +
          "|expect=" + (req.has_header("Expect") ? "yes" : "no") +
          "|x=" + req.get_header_value("X-Probe");
      res.set_content(text, "text/plain");
    };
    server_.server().Get("/echo", echo);
    server_.server().Post("/echo", echo);
    server_.server().Put("/echo", echo);
    server_.server().Patch("/echo", echo);
    server_.server().Delete("/echo", echo);
    server_.server().Options("/echo", echo);
    server_.server().Get("/repeated", [](const httplib::Request&, httplib::Response& res) {
      res.set_header("Set-Cookie", "a=1");
      res.set_header("X-Other", "x");
      res.set_header("Set-Cookie", "b=2");
      res.status = 201;
      res.set_content("made", "text/plain");
    });
    server_.server().Get(R"(/status/(\d+))",
                         [](const httplib::Request& req, httplib::Response& res) {
                           res.status = std::stoi(req.matches[1]);
                           if (res.status != 204 && res.status != 304)
                             res.set_content("{}", "application/json");
                         });
    server_.server().Get("/slow", [](const httplib::Request&, httplib::Response& res) {
      std::this_thread::sleep_for(1500ms);
      res.set_content("late", "text/plain");
    });
    server_.server().Get(
        R"(/hops/(\d+))", [this](const httplib::Request& req, httplib::Response& res) {
          const int left = std::stoi(req.matches[1]);
          if (left == 0) {
            res.set_content("arrived", "text/plain");
          } else {
            res.set_redirect(server_.url("/hops/" + std::to_string(left - 1)), 302);
          }
        });
    server_.server().Post("/see-other", [](const httplib::Request&, httplib::Response& res) {
      res.set_redirect("/echo", 303);
    });
    server_.server().Put("/temporary", [](const httplib::Request&, httplib::Response& res) {
      res.set_redirect("/echo", 307);
    });
    server_.start();
  }

  Result<HttpResponse> fetch(HttpRequest request) {
    return test::awaited<Result<HttpResponse>>(
        [&](auto done) { session_.send(std::move(request), done); });
  }

  HttpRequest request(const std::string& method, const std::string& path,
                      std::optional<std::string> body = std::nullopt) {
    HttpRequest r;
    r.method = method;
    r.url = server_.url(path);
    r.body = std::move(body);
    r.timeout = 5000ms;
    return r;
  }

  LoopbackServer server_;
  base::Executors executors_{4};
  HttpSession session_{executors_};
};

TEST_F(HttpSessionTest, SendsMethodsAndBodiesExactlyAsGiven) {
  struct Case {
    std::string method;
    std::optional<std::string> body;
    std::string expected;
  };
  const std::string big(100000,
                        'z');  // large enough that curl would otherwise ask for 100-continue
  const std::vector<Case> cases{
      {"GET", std::nullopt, "GET||ct=<absent>|expect=no|x="},
      {"DELETE", std::nullopt, "DELETE||ct=<absent>|expect=no|x="},
      {"POST", std::string("{\"a\":1}"), "POST|{\"a\":1}|ct=<absent>|expect=no|x="},
      {"PUT", std::string(""), "PUT||ct=<absent>|expect=no|x="},
      {"PATCH", std::string("mode=rule&x=\xe8\x8a\x82"),
       "PATCH|mode=rule&x=\xe8\x8a\x82|ct=<absent>|expect=no|x="},
      {"POST", big, "POST|" + big + "|ct=<absent>|expect=no|x="},
      {"OPTIONS", std::nullopt, "OPTIONS||ct=<absent>|expect=no|x="},
  };
  for (const auto& c : cases) {
    auto result = fetch(request(c.method, "/echo", c.body));
    ASSERT_TRUE(result.ok()) << c.method << ": " << result.error().description;
    EXPECT_EQ(result.value().status, 200);
    EXPECT_EQ(result.value().body, c.expected) << c.method;
  }
}

TEST_F(HttpSessionTest, SendsRequestHeadersAndDropsInjectedLines) {
  auto r = request("POST", "/echo", std::string("{}"));
  r.headers = {{"Content-Type", "application/json"},
               {"X-Probe", "one"},
               {"X-Evil", "a\r\nX-Probe: smuggled"}};
  auto result = fetch(r);
  ASSERT_TRUE(result.ok()) << result.error().description;
  EXPECT_EQ(result.value().body, "POST|{}|ct=application/json|expect=no|x=one");
}

TEST_F(HttpSessionTest, ManyConcurrentRequestsEachCompleteOnceOffTheCallerThread) {
  constexpr int kCount = 64;
  std::vector<std::promise<std::string>> promises(kCount);
  std::atomic<int> calls{0};
  std::atomic<bool> onCaller{false};
  const auto caller = std::this_thread::get_id();
  for (int i = 0; i < kCount; ++i) {
    auto r = request("POST", "/echo", "n" + std::to_string(i));
    // The test server's listen backlog is tiny, so some connects wait for a SYN retry.
    r.timeout = 30s;
    session_.send(r, [&, i](Result<HttpResponse> result) {
      ++calls;
      if (std::this_thread::get_id() == caller) onCaller = true;
      promises[static_cast<std::size_t>(i)].set_value(result.ok() ? result.value().body
                                                                  : result.error().description);
    });
  }
  for (int i = 0; i < kCount; ++i) {
    EXPECT_EQ(promises[static_cast<std::size_t>(i)].get_future().get(),
              "POST|n" + std::to_string(i) + "|ct=<absent>|expect=no|x=");
  }
  EXPECT_EQ(calls.load(), kCount);
  EXPECT_FALSE(onCaller.load());
}

TEST_F(HttpSessionTest, StopCancelsInFlightRequestsWithoutCompletions) {
  std::atomic<int> completions{0};
  for (int i = 0; i < 8; ++i) {
    session_.send(request("GET", "/slow"), [&](Result<HttpResponse>) { ++completions; });
  }
  std::this_thread::sleep_for(100ms);  // let the transfers reach the server
  session_.stop();
  session_.stop();  // idempotent
  session_.send(request("GET", "/echo"), [&](Result<HttpResponse>) { ++completions; });
  std::this_thread::sleep_for(1800ms);  // past the moment the server answers
  EXPECT_EQ(completions.load(), 0);
}

TEST(HttpSessionLifetimeTest, DestroyedWithRequestsInFlight) {
  LoopbackServer server;
  server.server().Get("/", [](const httplib::Request&, httplib::Response& res) {
    std::this_thread::sleep_for(300ms);
    res.set_content("x", "text/plain");
  });
  server.start();
  base::Executors executors(2);
  std::atomic<int> completions{0};
  {
    HttpSession session(executors);
    HttpRequest r;
    r.url = server.url("/");
    for (int i = 0; i < 4; ++i) session.send(r, [&](Result<HttpResponse>) { ++completions; });
  }
  EXPECT_EQ(completions.load(), 0);
}

TEST(HttpSessionProxyTest, IgnoresProxyVariablesOfTheEnvironment) {
  // Set before any thread of the session exists.
  ::setenv("http_proxy", "http://127.0.0.1:1", 1);
  ::setenv("HTTP_PROXY", "http://127.0.0.1:1", 1);
  ::setenv("ALL_PROXY", "http://127.0.0.1:1", 1);
  LoopbackServer server;
  server.server().Get("/", [](const httplib::Request&, httplib::Response& res) {
    res.set_content("direct", "text/plain");
  });
  server.start();
  base::Executors executors(2);
  HttpSession session(executors);
  HttpRequest r;
  r.url = server.url("/");
  const auto result =
      test::awaited<Result<HttpResponse>>([&](auto done) { session.send(r, done); });
  ASSERT_TRUE(result.ok()) << result.error().description;
  EXPECT_EQ(result.value().body, "direct");
  session.stop();
}

// --- URL parts ------------------------------------------------------------------------------

struct UrlCase {
  std::string text;
  std::string scheme, host;
  std::optional<int> port;
  std::string path;
  std::optional<std::string> query, fragment;
};

TEST(UrlTest, SplitsAbsoluteUrlsAsWritten) {
  const std::vector<UrlCase> cases{
      {"http://127.0.0.1:33212/proxies/a%2Fb?x=1#f", "http", "127.0.0.1", 33212, "/proxies/a%2Fb",
       "x=1", "f"},
      {"HTTPS://Panel.Example", "https", "panel.example", std::nullopt, "", std::nullopt,
       std::nullopt},
      {"https://u:p@[::1]:8443/a/../b?", "https", "::1", 8443, "/a/../b", "", std::nullopt},
      {"http://127.0.0.1/proxies/QEV\xe5\x8a\xa0\xe9\x80\x9f", "http", "127.0.0.1", std::nullopt,
       "/proxies/QEV\xe5\x8a\xa0\xe9\x80\x9f", std::nullopt, std::nullopt},
      {"mailto:a@b.example?subject=x", "mailto", "", std::nullopt, "a@b.example", "subject=x",
       std::nullopt},
      {"qevnative://app/", "qevnative", "app", std::nullopt, "/", std::nullopt, std::nullopt},
      {"file:///tmp/x", "file", "", std::nullopt, "/tmp/x", std::nullopt, std::nullopt},
  };
  for (const auto& c : cases) {
    const auto url = parseUrl(c.text);
    ASSERT_TRUE(url.has_value()) << c.text;
    EXPECT_EQ(url->scheme, c.scheme) << c.text;
    EXPECT_EQ(url->host, c.host) << c.text;
    EXPECT_EQ(url->port, c.port) << c.text;
    EXPECT_EQ(url->path, c.path) << c.text;
    EXPECT_EQ(url->query, c.query) << c.text;
    EXPECT_EQ(url->fragment, c.fragment) << c.text;
  }
  for (const std::string text :
       {"", "example.com/path", "http://", "http:///path", "http://a b/", "http://host/a b",
        "http://host/\n", "http://host:99999/", "http://host:8x/", "http://[::1/", "1http://host/",
        "http://ho<st/"}) {
    EXPECT_FALSE(parseUrl(text).has_value()) << text;
  }
}

}  // namespace
}  // namespace qev::net
