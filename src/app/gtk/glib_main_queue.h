#pragma once

#include <glib.h>

#include <atomic>
#include <functional>
#include <memory>

#include "base/main_queue.h"

namespace qev::app {

// The main queue of the desktop shell: every task becomes an idle source on the GLib main
// context, so tasks run on the thread that runs the loop, in the order they were posted.
// Posting is safe from any thread. After `close()` tasks still pending are dropped unrun, so
// nothing reaches objects that the shell is tearing down.
class GlibMainQueue final : public base::MainQueue {
 public:
  explicit GlibMainQueue(GMainContext* context);
  ~GlibMainQueue() override;
  GlibMainQueue(const GlibMainQueue&) = delete;
  GlibMainQueue& operator=(const GlibMainQueue&) = delete;

  void post(std::function<void()> task) override;
  void close();

 private:
  struct Gate {
    std::atomic<bool> open{true};
  };

  GMainContext* context_;
  std::shared_ptr<Gate> gate_ = std::make_shared<Gate>();
};

}  // namespace qev::app
