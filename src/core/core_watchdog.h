#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

#include "base/logger.h"

namespace qev::core {

struct WatchdogHooks {
  std::function<bool()> connectionWanted;  // the system proxy is on: someone relies on the core
  // The serialized restart; reports whether the controller answered.
  std::function<void(std::string reason, std::function<void(bool)> done)> restart;
  std::function<void()> recovered;  // the core answers again
  std::function<void()> gaveUp;     // the core stays down
};

// Brings a core that died on its own back while the user is connected, a few times; then gives
// up, so that the desktop is not left pointing at a dead proxy.
class CoreWatchdog {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr int kMaxRestarts = 3;
  static constexpr std::chrono::seconds kWindow{60};

  CoreWatchdog(WatchdogHooks hooks, const base::Logger& log);

  // The core ended unexpectedly. Restarts it, up to kMaxRestarts times in kWindow.
  void coreExited();

 private:
  void attempt();
  void finish(bool recovered);

  WatchdogHooks hooks_;
  const base::Logger& log_;
  std::mutex mutex_;
  std::deque<Clock::time_point> restarts_;  // recent restarts, oldest first
  bool recovering_ = false;                 // a restart sequence is under way
};

}  // namespace qev::core
