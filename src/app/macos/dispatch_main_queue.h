#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "base/main_queue.h"

namespace qev::app {

// The main queue of the macOS shell: every task goes to the main dispatch queue, asynchronously
// (never inline, even from the main thread), in the order posted. After `close()` tasks still
// waiting are dropped unrun, so nothing reaches objects the shell is tearing down.
class DispatchMainQueue final : public base::MainQueue {
 public:
  void post(std::function<void()> task) override;
  void close() { open_->store(false); }

 private:
  std::shared_ptr<std::atomic<bool>> open_ = std::make_shared<std::atomic<bool>>(true);
};

}  // namespace qev::app
