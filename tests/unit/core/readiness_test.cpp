#include "core/controller_readiness.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "awaited.h"
#include "net_loopback_server.h"

namespace qev::core {
namespace {

using namespace std::chrono_literals;

class SilentLog : public base::Logger {
 public:
  void message(std::string_view) const noexcept override {}
};

struct Rig {
  explicit Rig(std::string base, ReadinessTimings timings = {})
      : controller(session, log, std::move(base)),
        readiness(session, controller, executors, timings) {}

  bool ready() {
    return test::awaited<bool>([&](auto done) { readiness.isControllerReady(done); });
  }
  bool wait(std::chrono::milliseconds budget) {
    return test::awaited<bool>([&](auto done) { readiness.waitForController(budget, done); });
  }

  base::Executors executors{4};
  net::HttpSession session{executors};
  SilentLog log;
  controller::ControllerClient controller;
  ControllerReadiness readiness;
};

TEST(ReadinessTest, OnlyTheCoresAuthorisedGreetingCountsAsReady) {
  test::LoopbackServer server;
  std::atomic<int> mode{0};  // 0: the core; 1: another user's core; 2: another program
  std::string seenAuthorization;
  std::mutex seenMutex;
  server.server().Get("/", [&](const httplib::Request& request, httplib::Response& response) {
    {
      std::lock_guard lock(seenMutex);
      seenAuthorization = request.get_header_value("Authorization");
    }
    if (mode == 1) {
      response.status = 401;
      response.set_content("{\"message\":\"Unauthorized\"}\n", "application/json");
    } else {
      response.set_content(mode == 0 ? "{\"hello\":\"mihomo\"}\n" : "<html>ok</html>",
                           mode == 0 ? "application/json" : "text/html");
    }
  });
  server.start();
  Rig rig(server.base(), {5s, 100ms});  // generous: sanitizer builds answer slowly
  ASSERT_TRUE(rig.controller.renewSecret());
  EXPECT_TRUE(rig.ready());
  EXPECT_TRUE(rig.wait(0ms));
  {
    std::lock_guard lock(seenMutex);
    EXPECT_EQ(seenAuthorization, "Bearer " + rig.controller.secret());
  }
  for (const int other : {1, 2}) {
    mode = other;
    EXPECT_FALSE(rig.ready()) << other;
  }
}

TEST(ReadinessTest, NothingListeningEndsFalse) {
  Rig rig("http://127.0.0.1:1", {200ms, 50ms});
  EXPECT_FALSE(rig.ready());
  EXPECT_FALSE(rig.wait(0ms));
  EXPECT_FALSE(rig.wait(300ms));
  Rig broken("http://bad host");
  EXPECT_FALSE(broken.ready());
}

TEST(ReadinessTest, WaitSucceedsOnceTheControllerComesUp) {
  test::LoopbackServer server;
  std::atomic<int> probes{0};
  server.server().Get("/", [&](const httplib::Request&, httplib::Response& res) {
    // The first probes fail the way a connection refused does: no HTTP answer at all.
    if (++probes < 3) {
      std::this_thread::sleep_for(2500ms);
    }
    res.set_content("{\"hello\":\"mihomo\"}", "application/json");
  });
  server.start();
  Rig rig(server.base(), {1s, 20ms});
  EXPECT_TRUE(rig.wait(10s));
  EXPECT_GE(probes.load(), 3);
}

TEST(ReadinessTest, EnsureProxyPortsSendsTheFixedPortsAndAlwaysCompletes) {
  test::LoopbackServer server;
  std::mutex mutex;
  std::string method;
  Json body;
  server.server().Put("/configs", [&](const httplib::Request& req, httplib::Response& res) {
    std::lock_guard lock(mutex);
    method = req.method;
    body = Json::parse(req.body, nullptr, false);
    res.status = 204;
  });
  server.start();
  Rig rig(server.base(), {5s, 100ms});
  test::awaitedDone([&](auto done) { rig.readiness.ensureProxyPorts(done); });
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(method, "PUT");
    EXPECT_EQ(body, Json({{"port", 33210}, {"socks-port", 33211}}));
  }

  Rig dead("http://127.0.0.1:1");
  test::awaitedDone([&](auto done) { dead.readiness.ensureProxyPorts(done); });
}

}  // namespace
}  // namespace qev::core
