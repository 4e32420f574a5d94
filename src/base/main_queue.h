#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace qev::base {

// Where page answers and user-interface work run: the GLib main context, the main dispatch
// queue, or the headless loop. Implementations must accept posts from any thread.
class MainQueue {
 public:
  virtual ~MainQueue() = default;
  virtual void post(std::function<void()> task) = 0;
};

// A main queue drained explicitly by its owner thread (the headless loop and tests).
class ManualMainQueue final : public MainQueue {
 public:
  void post(std::function<void()> task) override;

  // Runs at most one task, waiting up to `timeout` for one; true when a task ran.
  bool runOne(std::chrono::milliseconds timeout);
  // Runs tasks until none is left (tasks posted meanwhile included).
  void drain();

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::function<void()>> tasks_;
};

}  // namespace qev::base
