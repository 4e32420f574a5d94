#include "storage/instance_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

namespace qev::storage {

std::optional<InstanceLock> InstanceLock::acquire(const std::filesystem::path& file,
                                                  std::chrono::milliseconds patience) {
  const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return std::nullopt;
  const auto deadline = std::chrono::steady_clock::now() + patience;
  for (;;) {
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) return InstanceLock(fd);
    if (errno != EWOULDBLOCK && errno != EINTR) break;
    if (std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ::close(fd);
  return std::nullopt;
}

InstanceLock::~InstanceLock() {
  if (fd_ >= 0) ::close(fd_);
}

}  // namespace qev::storage
