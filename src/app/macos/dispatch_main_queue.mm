#include "app/macos/dispatch_main_queue.h"

#include <dispatch/dispatch.h>

#include <utility>

namespace qev::app {

void DispatchMainQueue::post(std::function<void()> task) {
  // The block copies what it captures; the shared flag outlives the queue object.
  std::shared_ptr<std::atomic<bool>> open = open_;
  dispatch_async(dispatch_get_main_queue(), ^{
    if (open->load() && task) task();
  });
}

}  // namespace qev::app
