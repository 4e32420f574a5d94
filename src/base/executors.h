#pragma once

#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace qev::base {

using Task = std::function<void()>;

// Runs tasks one at a time, in order, on the shared pool.
class SerialQueue {
 public:
  SerialQueue(asio::thread_pool& pool, std::string label);
  void post(Task task);
  const std::string& label() const { return label_; }

 private:
  asio::strand<asio::thread_pool::executor_type> strand_;
  std::string label_;
};

// The process-wide pool for blocking work (child processes, core restarts, waits) and the
// timers that schedule delayed work on it. Owned by the bridge; stopped before its parts die.
class Executors {
 public:
  explicit Executors(std::size_t threads = 8);
  ~Executors();
  Executors(const Executors&) = delete;
  Executors& operator=(const Executors&) = delete;

  void post(Task task);
  void postAfter(std::chrono::milliseconds delay, Task task);
  std::shared_ptr<SerialQueue> makeSerialQueue(std::string label);

  // Drops queued work, waits for running tasks and refuses new ones. Idempotent.
  void stop();
  bool stopped() const { return stopped_.load(); }

 private:
  asio::thread_pool pool_;
  std::atomic<bool> stopped_{false};
};

}  // namespace qev::base
