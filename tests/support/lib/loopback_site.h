#pragma once

#include <httplib.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qev::test {

// A web site on the loopback interface that counts the paths asked of it.
class LoopbackSite {
 public:
  LoopbackSite() {
    server_.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
      {
        std::lock_guard lock(mutex_);
        requested_.push_back(request.path);
      }
      response.set_content("<p>" + request.path + "</p>", "text/html");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    serving_ = std::thread([this] { server_.listen_after_bind(); });
  }
  ~LoopbackSite() {
    server_.stop();
    serving_.join();
  }

  std::string origin() const { return "http://127.0.0.1:" + std::to_string(port_); }
  long requests(const std::string& path) const {
    std::lock_guard lock(mutex_);
    return std::count(requested_.begin(), requested_.end(), path);
  }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread serving_;
  mutable std::mutex mutex_;
  std::vector<std::string> requested_;
};

}  // namespace qev::test
