#pragma once

#include <chrono>
#include <condition_variable>
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
    {
      std::lock_guard lock(mutex_);
      lines_.emplace_back(text);
    }
    changed_.notify_all();
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  std::vector<std::string> linesStartingWith(std::string_view prefix) const {
    std::vector<std::string> found;
    for (const auto& line : lines()) {
      if (line.starts_with(prefix)) found.push_back(line);
    }
    return found;
  }
  // The first line with this prefix, waiting up to `limit` for it; empty when none came.
  std::string waitFor(std::string_view prefix,
                      std::chrono::milliseconds limit = std::chrono::seconds(15)) const {
    std::unique_lock lock(mutex_);
    std::string found;
    changed_.wait_for(lock, limit, [&] {
      for (const auto& line : lines_) {
        if (line.starts_with(prefix)) {
          found = line;
          return true;
        }
      }
      return false;
    });
    return found;
  }
  void clear() const {
    std::lock_guard lock(mutex_);
    lines_.clear();
  }
  bool has(std::string_view line) const {
    for (const auto& l : lines()) {
      if (l == line) return true;
    }
    return false;
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  mutable std::vector<std::string> lines_;
};

}  // namespace qev::test
