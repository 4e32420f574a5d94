#pragma once

#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <string>
#include <thread>

namespace qev::test {

// A real HTTP server on a free loopback port for the duration of a test.
class LoopbackServer {
 public:
  LoopbackServer() = default;
  ~LoopbackServer() { shutdown(); }
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  httplib::Server& server() { return server_; }

  void start() {
    // One worker per concurrent connection: curl opens one per parallel request.
    server_.new_task_queue = [] { return new httplib::ThreadPool(72); };
    port_ = server_.bind_to_any_port("127.0.0.1");
    ASSERT_GT(port_, 0);
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  void shutdown() {
    server_.stop();
    if (thread_.joinable()) thread_.join();
  }
  int port() const { return port_; }
  std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::string url(const std::string& path) const { return base() + path; }

 private:
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
};

}  // namespace qev::test
