#include "process/process_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "base/utf8.h"

extern char** environ;

namespace qev::process {
namespace {

// Owns one file descriptor.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(Fd&& other) noexcept : fd_(other.release()) {}
  Fd& operator=(Fd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = other.release();
    }
    return *this;
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

struct Pipe {
  Fd read;
  Fd write;
};

// Both ends close-on-exec, so no other child started meanwhile inherits them; the spawn's dup2
// clears the flag on the child's copy only.
std::optional<Pipe> makePipe() {
  int fds[2];
#ifdef __APPLE__
  // No pipe2 here; the spawn attribute POSIX_SPAWN_CLOEXEC_DEFAULT keeps other children clean.
  if (::pipe(fds) != 0) return std::nullopt;
  ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
  ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
#else
  if (::pipe2(fds, O_CLOEXEC) != 0) return std::nullopt;
#endif
  return Pipe{Fd(fds[0]), Fd(fds[1])};
}

std::string errorText(int error, const std::string& path) {
  return std::string(std::strerror(error)) + ": " + path;
}

class FileActions {
 public:
  FileActions() { ok_ = ::posix_spawn_file_actions_init(&actions_) == 0; }
  ~FileActions() {
    if (ok_) ::posix_spawn_file_actions_destroy(&actions_);
  }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  posix_spawn_file_actions_t* get() { return &actions_; }
  bool ok() const { return ok_; }

 private:
  posix_spawn_file_actions_t actions_;
  bool ok_ = false;
};

class SpawnAttributes {
 public:
  SpawnAttributes() { ok_ = ::posix_spawnattr_init(&attributes_) == 0; }
  ~SpawnAttributes() {
    if (ok_) ::posix_spawnattr_destroy(&attributes_);
  }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
  posix_spawnattr_t* get() { return &attributes_; }
  bool ok() const { return ok_; }

 private:
  posix_spawnattr_t attributes_;
  bool ok_ = false;
};

struct Spawned {
  pid_t pid = -1;
  int error = 0;
};

// Starts `path` with stdin on /dev/null and stdout/stderr on the given descriptors (or
// /dev/null when negative). Every other descriptor of this process stays out of the child.
Spawned spawn(const std::string& path, const std::vector<std::string>& arguments, int outFd,
              int errFd) {
  FileActions actions;
  SpawnAttributes attributes;
  if (!actions.ok() || !attributes.ok()) return {-1, ENOMEM};
  int rc =
      ::posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (rc == 0) {
    rc = outFd >= 0 ? ::posix_spawn_file_actions_adddup2(actions.get(), outFd, STDOUT_FILENO)
                    : ::posix_spawn_file_actions_addopen(actions.get(), STDOUT_FILENO, "/dev/null",
                                                         O_WRONLY, 0);
  }
  if (rc == 0) {
    rc = errFd >= 0 ? ::posix_spawn_file_actions_adddup2(actions.get(), errFd, STDERR_FILENO)
                    : ::posix_spawn_file_actions_addopen(actions.get(), STDERR_FILENO, "/dev/null",
                                                         O_WRONLY, 0);
  }
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
  // Descriptors opened elsewhere without O_CLOEXEC must not leak into the child either.
  if (rc == 0) rc = ::posix_spawn_file_actions_addclosefrom_np(actions.get(), STDERR_FILENO + 1);
#endif
  short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
#ifdef __APPLE__
  flags |= POSIX_SPAWN_CLOEXEC_DEFAULT;
#endif
  if (rc == 0) rc = ::posix_spawnattr_setflags(attributes.get(), flags);
  // The child starts with no blocked signals and default handlers, whatever this process set.
  sigset_t empty;
  sigset_t all;
  sigemptyset(&empty);
  sigfillset(&all);
  sigdelset(&all, SIGKILL);
  sigdelset(&all, SIGSTOP);
  if (rc == 0) rc = ::posix_spawnattr_setsigmask(attributes.get(), &empty);
  if (rc == 0) rc = ::posix_spawnattr_setsigdefault(attributes.get(), &all);
  if (rc != 0) return {-1, rc};

  std::vector<char*> argv;
  argv.reserve(arguments.size() + 2);
  argv.push_back(const_cast<char*>(path.c_str()));
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  pid_t pid = -1;
  rc = ::posix_spawn(&pid, path.c_str(), actions.get(), attributes.get(), argv.data(), environ);
  if (rc != 0) return {-1, rc};
  return {pid, 0};
}

int waitForExit(pid_t pid, int options = 0) {
  int status = 0;
  for (;;) {
    const pid_t rc = ::waitpid(pid, &status, options);
    if (rc == pid) return status;
    if (rc == 0) return -1;  // WNOHANG and still running
    if (errno != EINTR) return -2;
  }
}

bool exitedCleanly(int status) {
  return status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Appends what can be read now; false at end of file or on error.
bool readAvailable(int fd, std::string& into) {
  char buffer[16384];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      into.append(buffer, static_cast<std::size_t>(n));
      if (static_cast<std::size_t>(n) < sizeof buffer) return true;
      continue;
    }
    if (n == 0) return false;
    if (errno == EINTR) continue;
    return errno == EAGAIN || errno == EWOULDBLOCK;
  }
}

// Reads both pipes until both reach end of file. A grandchild that keeps a pipe open after the
// child exited does not hold us: once the child is gone we take what is buffered and stop.
// Returns the child's wait status.
int drainUntilExit(pid_t pid, Fd& out, Fd& err, std::string& outText, std::string& errText) {
  ::fcntl(out.get(), F_SETFL, ::fcntl(out.get(), F_GETFL) | O_NONBLOCK);
  ::fcntl(err.get(), F_SETFL, ::fcntl(err.get(), F_GETFL) | O_NONBLOCK);
  std::optional<int> status;
  while (out.valid() || err.valid()) {
    pollfd fds[2];
    nfds_t count = 0;
    Fd* owners[2];
    std::string* sinks[2];
    if (out.valid()) {
      fds[count] = {out.get(), POLLIN, 0};
      owners[count] = &out;
      sinks[count++] = &outText;
    }
    if (err.valid()) {
      fds[count] = {err.get(), POLLIN, 0};
      owners[count] = &err;
      sinks[count++] = &errText;
    }
    const int ready = ::poll(fds, count, status ? 0 : 200);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) break;
    if (ready == 0) {
      if (status) break;  // child gone and nothing more buffered
      const int s = waitForExit(pid, WNOHANG);
      if (s != -1) status = s;
      continue;
    }
    for (nfds_t i = 0; i < count; ++i) {
      if (fds[i].revents == 0) continue;
      if (!readAvailable(fds[i].fd, *sinks[i])) owners[i]->reset();
    }
  }
  out.reset();
  err.reset();
  return status ? *status : waitForExit(pid);
}

}  // namespace

Result<ErrorPipedChild> spawnWithErrorPipe(const std::string& path,
                                           const std::vector<std::string>& arguments) {
  auto err = makePipe();
  if (!err) return BridgeError::system(errorText(errno, path), errno);
  const Spawned child = spawn(path, arguments, -1, err->write.get());
  err->write.reset();
  if (child.pid < 0) return BridgeError::system(errorText(child.error, path), child.error);
  return ErrorPipedChild{child.pid, err->read.release()};
}

bool runProcess(const std::string& path, const std::vector<std::string>& arguments) {
  // The output does not matter, so it goes to /dev/null: nothing to drain, nothing to block on.
  const Spawned child = spawn(path, arguments, -1, -1);
  if (child.pid < 0) return false;
  return exitedCleanly(waitForExit(child.pid));
}

ProcessOutput runProcessOutput(const std::string& path, const std::vector<std::string>& arguments) {
  auto out = makePipe();
  auto err = makePipe();
  if (!out || !err) return {false, errorText(errno, path)};
  const Spawned child = spawn(path, arguments, out->write.get(), err->write.get());
  out->write.reset();
  err->write.reset();
  if (child.pid < 0) return {false, errorText(child.error, path)};

  std::string outText;
  std::string errText;
  const int status = drainUntilExit(child.pid, out->read, err->read, outText, errText);
  if (!base::isValidUtf8(outText)) outText.clear();
  if (!base::isValidUtf8(errText)) errText.clear();
  return {exitedCleanly(status), outText + errText};
}

}  // namespace qev::process
