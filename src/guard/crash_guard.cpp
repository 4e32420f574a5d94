#include "guard/crash_guard.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "base/strings.h"
#include "core/mihomo_supervisor.h"
#include "process/process_runner.h"
#include "storage/plaintext_cleanup.h"
#include "storage/protected_files.h"

namespace qev::guard {
namespace {

constexpr std::string_view kStandDown = "quit\n";
// The dying app releases its lock a moment after its pipe closes.
constexpr std::chrono::seconds kLockPatience{3};
constexpr std::chrono::milliseconds kSweepPause{250};
constexpr int kMaxRelaunches = 3;

// A guard that died must not take the app with it through SIGPIPE.
void writeAll(int fd, std::string_view bytes) {
#ifdef MSG_NOSIGNAL
  constexpr int kFlags = MSG_NOSIGNAL;
#else
  constexpr int kFlags = 0;  // SO_NOSIGPIPE is set on the socket instead
#endif
  while (!bytes.empty()) {
    const ssize_t n = ::send(fd, bytes.data(), bytes.size(), kFlags);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
}

// Reads until end of file; true when the stand-down arrived first.
bool waitForStandDown(int input) {
  std::string received;
  char buffer[64];
  for (;;) {
    const ssize_t n = ::read(input, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    received.append(buffer, static_cast<std::size_t>(n));
    if (received.find(kStandDown) != std::string::npos) return true;
    if (received.size() > 4 * kStandDown.size())
      received.erase(0, received.size() - kStandDown.size());
  }
}

}  // namespace

void cleanUpAfterApp(sysproxy::SystemProxyBackend& backend, const storage::Profile& profile,
                     const base::Logger& log) {
  const bool pointed = backend.pointsAtCore();
  if (pointed) backend.disableSystemProxy();
  core::sweepStaleCores(profile, kSweepPause);
  const storage::ProtectedFiles protectedFiles(profile.paths, profile.userName);
  storage::PlaintextCleanup(profile.paths, protectedFiles).removeRuntimePlaintextConfigs();
  log.message(std::string("native.guard.cleanup: systemProxyOff=") + base::boolText(pointed));
}

int runGuard(int input, const storage::Profile& profile, const base::Logger& log) {
  // Signals meant for the app (a terminal's ^C, a logout's SIGTERM) must not end the guard
  // first; it ends by itself once the app is gone.
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) ::signal(signal, SIG_IGN);
  if (waitForStandDown(input)) return 0;
  const auto lock = storage::InstanceLock::acquire(profile.paths.instanceLock, kLockPatience);
  if (!lock) return 0;  // another qev runs on this data folder now; it owns the proxy
  const auto backend = sysproxy::makeSystemProxyBackend(profile, log);
  cleanUpAfterApp(*backend, profile, log);
  return 0;
}

std::filesystem::path guardProgramBeside(const std::filesystem::path& executable) {
  constexpr const char* kProgram = "qev-guard";
  const auto folder = executable.parent_path();
  const auto beside = folder / kProgram;
  std::error_code ec;
  for (const auto& candidate : {beside, folder.parent_path() / "libexec" / "qev" / kProgram}) {
    if (std::filesystem::exists(candidate, ec)) return candidate;
  }
  return beside;  // fails to start, and says so in the log
}

CrashGuard::CrashGuard(storage::InstanceLock lock, std::filesystem::path program,
                       const base::Logger& log)
    : lock_(std::move(lock)), program_(std::move(program)), log_(log) {}

std::unique_ptr<CrashGuard> CrashGuard::engage(const storage::Profile& profile,
                                               const std::filesystem::path& executable,
                                               const base::Logger& log) {
  auto lock = storage::InstanceLock::acquire(profile.paths.instanceLock, kLockPatience);
  if (!lock) {
    log.message("native.guard.otherInstance");
    return nullptr;
  }
  std::unique_ptr<CrashGuard> guard(
      new CrashGuard(std::move(*lock), guardProgramBeside(executable), log));
  {
    std::lock_guard hold(guard->mutex_);
    if (!guard->launch()) return nullptr;
  }
  guard->watcher_ = std::thread([raw = guard.get()] { raw->watch(); });
  return guard;
}

bool CrashGuard::launch() {
  int fds[2];
#ifdef SOCK_CLOEXEC
  // Both ends close-on-exec, so no other child (the core above all) keeps the guard waiting.
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return false;
#else
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return false;
  ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
  ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
  const int on = 1;
  ::setsockopt(fds[1], SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
  auto spawned = process::spawnInNewSession(program_.string(), {}, fds[0]);
  ::close(fds[0]);
  if (!spawned) {
    ::close(fds[1]);
    log_.message("native.guard.start.error: " + spawned.error().description);
    return false;
  }
  pid_ = spawned.value();
  pipe_ = fds[1];
  log_.message("native.guard.started: " + std::to_string(pid_));
  return true;
}

void CrashGuard::watch() {
  for (;;) {
    pid_t pid;
    {
      std::lock_guard hold(mutex_);
      pid = pid_;
    }
    if (pid < 0) return;
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    std::lock_guard hold(mutex_);
    if (standingDown_) return;
    ::close(pipe_);
    pipe_ = -1;
    pid_ = -1;
    log_.message("native.guard.lost");
    if (relaunches_++ >= kMaxRelaunches || !launch()) return;
  }
}

CrashGuard::~CrashGuard() {
  {
    std::lock_guard hold(mutex_);
    standingDown_ = true;
    if (pipe_ >= 0) {
      writeAll(pipe_, kStandDown);
      ::close(pipe_);
      pipe_ = -1;
    }
  }
  // The guard exits on the stand-down; the watcher reaps it and ends.
  if (watcher_.joinable()) watcher_.join();
}

}  // namespace qev::guard
