#include "base/main_queue.h"

namespace qev::base {

void ManualMainQueue::post(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  ready_.notify_one();
}

bool ManualMainQueue::runOne(std::chrono::milliseconds timeout) {
  std::function<void()> task;
  {
    std::unique_lock lock(mutex_);
    if (!ready_.wait_for(lock, timeout, [&] { return !tasks_.empty(); })) return false;
    task = std::move(tasks_.front());
    tasks_.pop_front();
  }
  task();
  return true;
}

void ManualMainQueue::drain() {
  while (runOne(std::chrono::milliseconds(0))) {
  }
}

}  // namespace qev::base
