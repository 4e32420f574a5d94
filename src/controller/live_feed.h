#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

#include "base/executors.h"
#include "base/json.h"
#include "controller/controller_client.h"
#include "net/http_session.h"

namespace qev::controller {

// One streaming connection each to the core's /traffic and /logs, kept open while qev runs and
// reopened after the core restarts. The latest numbers and lines are answered from memory, so
// the page can ask as often as it likes without reaching the core.
class LiveFeed {
 public:
  using TrafficListener = std::function<void(const Json& traffic)>;
  static constexpr std::size_t kLogLines = 500;

  LiveFeed(net::HttpSession& session, ControllerClient& controller, base::Executors& executors);
  ~LiveFeed();
  LiveFeed(const LiveFeed&) = delete;
  LiveFeed& operator=(const LiveFeed&) = delete;

  // Opens both streams; `onTraffic` gets every sample (once a second), on the session thread.
  void start(TrafficListener onTraffic);
  // No more reopening; the session's stop ends the open streams.
  void stop();
  // A core has just come up: a stream that waits to reopen does so now.
  void coreReady();

  // {up, down} in bytes per second over the last second, {upTotal, downTotal} since start.
  Json traffic() const;
  // The kept core log lines at `level` or above, oldest first: [{time, level, text}], each text
  // redacted as the diagnostic log is. An unknown level reads as "info".
  Json logs(std::string_view level) const;

 private:
  enum class Kind { kTraffic, kLogs };
  struct Stream {
    explicit Stream(Kind k) : kind(k) {}
    Kind kind;
    bool open = false;  // a request is under way
    std::uint64_t generation = 0;
    std::chrono::milliseconds backoff{0};
    bool delivered = false;  // data arrived on the current connection
    std::string pending;     // an incomplete line
  };

  void openLocked(Stream& stream);
  void ended(Stream& stream, std::uint64_t generation);
  bool receive(Stream& stream, std::uint64_t generation, std::string_view data);
  void takeLine(Kind kind, std::string_view line);

  net::HttpSession& session_;
  ControllerClient& controller_;
  base::Executors& executors_;
  TrafficListener onTraffic_;

  mutable std::mutex mutex_;
  bool running_ = false;
  Stream traffic_{Kind::kTraffic};
  Stream logs_{Kind::kLogs};
  std::uint64_t up_ = 0;
  std::uint64_t down_ = 0;
  std::uint64_t upTotal_ = 0;
  std::uint64_t downTotal_ = 0;
  std::deque<Json> lines_;
};

}  // namespace qev::controller
