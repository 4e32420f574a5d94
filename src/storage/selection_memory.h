#pragma once

#include <mutex>
#include <string>

namespace qev::storage {

// The last proxy the user chose, in memory; loaded from the settings at start and shared by
// the settings defaults and the proxy selection. Safe from any thread.
class SelectionMemory {
 public:
  struct Choice {
    std::string group;
    std::string name;
  };

  Choice get() const {
    std::lock_guard lock(mutex_);
    return choice_;
  }
  void set(Choice choice) {
    std::lock_guard lock(mutex_);
    choice_ = std::move(choice);
  }

 private:
  mutable std::mutex mutex_;
  Choice choice_;
};

}  // namespace qev::storage
