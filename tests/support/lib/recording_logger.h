#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "base/logger.h"

namespace qev::test {

// A logger that keeps every entry in memory, safe to write from any thread.
class RecordingLogger final : public base::Logger {
 public:
  void message(std::string_view text) const noexcept override {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(text);
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  bool has(std::string_view line) const {
    for (const auto& l : lines()) {
      if (l == line) return true;
    }
    return false;
  }

 private:
  mutable std::mutex mutex_;
  mutable std::vector<std::string> lines_;
};

}  // namespace qev::test
