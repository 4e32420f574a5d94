#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <utility>

namespace qev::storage {

// Marks one running qev per data folder: an exclusive lock on a file in it, released by the
// kernel however the holder ends. The descriptor is close-on-exec, so no child keeps it.
class InstanceLock {
 public:
  // Waits up to `patience` for the lock; nothing when another process keeps it.
  static std::optional<InstanceLock> acquire(const std::filesystem::path& file,
                                             std::chrono::milliseconds patience);
  InstanceLock(InstanceLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  InstanceLock& operator=(InstanceLock&&) = delete;
  InstanceLock(const InstanceLock&) = delete;
  ~InstanceLock();

 private:
  explicit InstanceLock(int fd) : fd_(fd) {}
  int fd_;
};

}  // namespace qev::storage
