#include "process/process_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#ifdef __linux__
#include <linux/close_range.h>
#include <sys/prctl.h>
#endif
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

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

// The spawn's dup2 clears close-on-exec on the child's copy only.
std::optional<Pipe> makePipe() {
  int fds[2];
  if (!openCloexecPipe(fds)) return std::nullopt;
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

// How a child's standard descriptors and its ties to this process are set up.
struct ChildSetup {
  int inFd = -1;  // each -1 stands for /dev/null
  int outFd = -1;
  int errFd = -1;
  bool newSession = false;     // out of this process group, so signals sent to it miss the child
  bool endWithParent = false;  // Linux: the child is killed when this process ends
};

std::vector<char*> argumentVector(const std::string& path,
                                  const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 2);
  argv.push_back(const_cast<char*>(path.c_str()));
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  return argv;
}

#ifdef __linux__
// posix_spawn cannot ask for a parent-death signal, so this child is forked by hand. Between
// fork and exec only async-signal-safe calls run; an exec failure comes back through a pipe.
Spawned forkWithParentDeathSignal(const std::string& path, std::vector<char*>& argv,
                                  const ChildSetup& setup) {
  auto report = makePipe();
  Fd devNull(::open("/dev/null", O_RDWR | O_CLOEXEC));
  if (!report || !devNull.valid()) return {-1, errno};
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid < 0) return {-1, errno};
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(127);  // the parent ended before the signal was armed
    const int standard[3] = {setup.inFd, setup.outFd, setup.errFd};
    for (int target = 0; target < 3; ++target) {
      if (::dup2(standard[target] >= 0 ? standard[target] : devNull.get(), target) < 0) {
        ::_exit(127);
      }
    }
    // Everything else closes at exec, the report pipe included.
    if (::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) != 0) {
      for (int fd = 3; fd < 4096; ++fd) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    struct sigaction defaults {};
    defaults.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal) ::sigaction(signal, &defaults, nullptr);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execve(path.c_str(), argv.data(), environ);
    const int error = errno;
    (void)!::write(report->write.get(), &error, sizeof error);
    ::_exit(127);
  }
  report->write.reset();
  int error = 0;
  ssize_t n;
  while ((n = ::read(report->read.get(), &error, sizeof error)) < 0 && errno == EINTR) {
  }
  if (n == static_cast<ssize_t>(sizeof error)) {
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    return {-1, error};
  }
  return {pid, 0};
}
#endif

// Starts `path` with the standard descriptors of `setup`. Every other descriptor of this
// process stays out of the child.
Spawned spawn(const std::string& path, const std::vector<std::string>& arguments,
              const ChildSetup& setup) {
  std::vector<char*> argv = argumentVector(path, arguments);
#ifdef __linux__
  if (setup.endWithParent) return forkWithParentDeathSignal(path, argv, setup);
#endif
  FileActions actions;
  SpawnAttributes attributes;
  if (!actions.ok() || !attributes.ok()) return {-1, ENOMEM};
  const auto redirect = [&](int fd, int target, int mode) {
    return fd >= 0
               ? ::posix_spawn_file_actions_adddup2(actions.get(), fd, target)
               : ::posix_spawn_file_actions_addopen(actions.get(), target, "/dev/null", mode, 0);
  };
  int rc = redirect(setup.inFd, STDIN_FILENO, O_RDONLY);
  if (rc == 0) rc = redirect(setup.outFd, STDOUT_FILENO, O_WRONLY);
  if (rc == 0) rc = redirect(setup.errFd, STDERR_FILENO, O_WRONLY);
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
  // Descriptors opened elsewhere without O_CLOEXEC must not leak into the child either.
  if (rc == 0) rc = ::posix_spawn_file_actions_addclosefrom_np(actions.get(), STDERR_FILENO + 1);
#endif
  short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
  if (setup.newSession) flags |= POSIX_SPAWN_SETSID;
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

bool openCloexecPipe(int (&fds)[2]) {
#ifdef __APPLE__
  // No pipe2 here; between the two calls another thread's posix_spawn could inherit the ends,
  // which POSIX_SPAWN_CLOEXEC_DEFAULT prevents for qev's own spawns.
  if (::pipe(fds) != 0) return false;
  ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
  ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
  return true;
#else
  return ::pipe2(fds, O_CLOEXEC) == 0;
#endif
}

Result<ErrorPipedChild> spawnWithErrorPipe(const std::string& path,
                                           const std::vector<std::string>& arguments) {
  auto err = makePipe();
  if (!err) return BridgeError::system(errorText(errno, path), errno);
  const Spawned child = spawn(path, arguments, {.errFd = err->write.get(), .endWithParent = true});
  err->write.reset();
  if (child.pid < 0) return BridgeError::system(errorText(child.error, path), child.error);
  return ErrorPipedChild{child.pid, err->read.release()};
}

bool runProcess(const std::string& path, const std::vector<std::string>& arguments) {
  // The output does not matter, so it goes to /dev/null: nothing to drain, nothing to block on.
  const Spawned child = spawn(path, arguments, {});
  if (child.pid < 0) return false;
  return exitedCleanly(waitForExit(child.pid));
}

ProcessOutput runProcessOutput(const std::string& path, const std::vector<std::string>& arguments) {
  auto out = makePipe();
  auto err = makePipe();
  if (!out || !err) return {false, errorText(errno, path)};
  const Spawned child =
      spawn(path, arguments, {.outFd = out->write.get(), .errFd = err->write.get()});
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

Result<int> spawnInNewSession(const std::string& path, const std::vector<std::string>& arguments,
                              int inputFd) {
  const Spawned child = spawn(path, arguments, {.inFd = inputFd, .newSession = true});
  if (child.pid < 0) return BridgeError::system(errorText(child.error, path), child.error);
  return child.pid;
}

}  // namespace qev::process
