#include "core/mihomo_supervisor.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <utility>

#include "base/fs.h"
#include "base/utf8.h"
#include "process/process_runner.h"

namespace qev::core {
namespace {

// Enough of the core's error output for the exit line; a runaway writer is read but not kept.
constexpr std::size_t kMaxErrorBytes = 1 << 20;
constexpr std::size_t kExitTextCharacters = 1000;
constexpr int kWatchIntervalMs = 200;

// Drops a UTF-8 sequence cut off at the end of a capped buffer.
void trimPartialSequence(std::string& text) {
  std::size_t back = 0;
  while (back < 4 && back < text.size() &&
         (static_cast<unsigned char>(text[text.size() - 1 - back]) & 0xC0) == 0x80) {
    ++back;
  }
  if (back < text.size() && (static_cast<unsigned char>(text[text.size() - 1 - back]) & 0x80)) {
    const auto lead = static_cast<unsigned char>(text[text.size() - 1 - back]);
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    if (length > back + 1) text.resize(text.size() - 1 - back);
  }
}

// The termination status as the exit line reports it: the exit code, or the signal's number.
int terminationStatus(int waitStatus) {
  if (WIFEXITED(waitStatus)) return WEXITSTATUS(waitStatus);
  if (WIFSIGNALED(waitStatus)) return WTERMSIG(waitStatus);
  return waitStatus;
}

// Whether `pid` has exited, without reaping it (its pid stays reserved until waitpid).
bool hasExited(pid_t pid) {
  siginfo_t info{};
  for (;;) {
    if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0) {
      return info.si_pid == pid;
    }
    if (errno != EINTR) return true;  // not our child any more: nothing left to wait for
  }
}

bool isExecutableFile(const std::filesystem::path& path) {
  std::error_code ec;
  return std::filesystem::is_regular_file(path, ec) && ::access(path.c_str(), X_OK) == 0;
}

}  // namespace

struct MihomoSupervisor::Child {
  pid_t pid = -1;
  bool reaped = false;       // guarded by childMutex_; once true the pid may belong to someone else
  bool stoppedByUs = false;  // guarded by childMutex_: a sweep or shutdown ends it, not a fault
  std::shared_ptr<std::atomic<bool>> exited = std::make_shared<std::atomic<bool>>(false);
};

std::string pkillPath(storage::Platform platform) {
  constexpr const char* kFallback = "/usr/bin/pkill";
  if (platform == storage::Platform::MacOS) return kFallback;
  const char* path = std::getenv("PATH");
  std::string_view rest = path ? path : "";
  while (!rest.empty()) {
    const auto colon = rest.find(':');
    const std::string_view folder = rest.substr(0, colon);
    rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
    if (folder.empty()) continue;
    const auto candidate = std::filesystem::path(folder) / "pkill";
    if (isExecutableFile(candidate)) return candidate.string();
  }
  return kFallback;
}

MihomoSupervisor::MihomoSupervisor(const storage::Profile& profile, const base::Logger& log,
                                   const base::Logger& systemLog, base::Executors& executors,
                                   ControllerReadiness& readiness,
                                   controller::ControllerClient& controller, CoreHooks hooks,
                                   SupervisorTimings timings)
    : profile_(profile),
      log_(log),
      systemLog_(systemLog),
      executors_(executors),
      readiness_(readiness),
      controller_(controller),
      hooks_(std::move(hooks)),
      timings_(timings) {
  if (!process::openCloexecPipe(wakePipe_)) wakePipe_[0] = wakePipe_[1] = -1;
}

MihomoSupervisor::~MihomoSupervisor() {
  std::vector<Watcher> watchers;
  {
    std::lock_guard lock(childMutex_);
    closing_ = true;
    watchers.swap(watchers_);
  }
  if (wakePipe_[1] >= 0) {
    const char byte = 1;
    [[maybe_unused]] const auto written = ::write(wakePipe_[1], &byte, 1);
  }
  for (auto& watcher : watchers) watcher.thread.join();
  for (const int fd : wakePipe_) {
    if (fd >= 0) ::close(fd);
  }
}

void sweepStaleCores(const storage::Profile& profile, std::chrono::milliseconds pause) {
  const std::string pkill = pkillPath(profile.platform);
  // Only this user's processes: another user's core (or root's) is never ours to end.
  const std::string uid = std::to_string(::getuid());
  for (const auto& pattern : profile.staleCorePatterns) {
    process::runProcess(pkill, {"-U", uid, "-f", pattern});
  }
  std::this_thread::sleep_for(pause);
  for (const auto& pattern : profile.staleCorePatterns) {
    process::runProcess(pkill, {"-9", "-U", uid, "-f", pattern});
  }
}

void MihomoSupervisor::killStaleMihomo() const {
  sweepStaleCores(profile_, timings_.stalePause);
}

bool MihomoSupervisor::restartMihomo(std::shared_ptr<std::atomic<bool>>* exited) {
  {
    std::lock_guard lock(childMutex_);
    if (shuttingDown_) return false;
    // The sweep below ends the current core on purpose.
    if (child_) child_->stoppedByUs = true;
  }
  killStaleMihomo();
  const auto launcher = profile_.paths.libs / "clash";
  if (!base::itemExists(launcher)) {
    log_.message("native.mihomo.missingLauncher: " + launcher.string());
    return false;
  }
  if (hooks_.ensureGeoDataFiles) hooks_.ensureGeoDataFiles();
  // Every core gets a secret of its own, written only into the short-lived runtime file.
  if (!controller_.renewSecret()) {
    log_.message("native.mihomo.noSecret");
    return false;
  }
  if (!hooks_.prepareRuntimeConfigFile || !hooks_.prepareRuntimeConfigFile()) {
    log_.message("native.mihomo.missingConfig");
    return false;
  }
  auto child = std::make_shared<Child>();
  {
    // Launching under the lock: a shutdown either comes first and no core starts, or comes
    // after and finds this core to stop.
    std::lock_guard lock(childMutex_);
    if (shuttingDown_) {
      if (hooks_.removeRuntimePlaintextConfigs) hooks_.removeRuntimePlaintextConfigs();
      return false;
    }
    auto spawned = process::spawnWithErrorPipe(
        launcher.string(),
        {"-d", profile_.paths.appSupport.string(), "-f", profile_.paths.configYaml.string()});
    if (!spawned) {
      systemLog_.message("failed to start mihomo: " + spawned.error().description);
      log_.message("native.mihomo.start.error: " + spawned.error().description);
      return false;
    }
    const process::ErrorPipedChild launched = spawned.value();
    child->pid = launched.pid;
    child_ = child;
    // Threads of cores that already ended are joined here, so they do not pile up.
    std::erase_if(watchers_, [](Watcher& watcher) {
      if (!watcher.done->load()) return false;
      watcher.thread.join();
      return true;
    });
    auto done = std::make_shared<std::atomic<bool>>(false);
    if (closing_) {
      ::close(launched.errorPipe);
    } else {
      watchers_.push_back({std::thread([this, child, fd = launched.errorPipe, done] {
                             watch(child, fd);
                             done->store(true);
                           }),
                           done});
    }
  }
  log_.message("native.mihomo.started: " + std::to_string(child->pid));
  if (exited) *exited = child->exited;
  return true;
}

void MihomoSupervisor::watch(std::shared_ptr<Child> child, int errorPipe) {
  ::fcntl(errorPipe, F_SETFL, ::fcntl(errorPipe, F_GETFL) | O_NONBLOCK);
  std::string text;
  bool pipeOpen = true;
  bool exited = false;
  const auto readPipe = [&] {
    char buffer[8192];
    for (;;) {
      const ssize_t n = ::read(errorPipe, buffer, sizeof buffer);
      if (n > 0) {
        const std::size_t room = kMaxErrorBytes - std::min(kMaxErrorBytes, text.size());
        text.append(buffer, std::min(room, static_cast<std::size_t>(n)));
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) pipeOpen = false;
      return;
    }
  };
  while (!exited) {
    pollfd fds[2] = {{wakePipe_[0], POLLIN, 0}, {pipeOpen ? errorPipe : -1, POLLIN, 0}};
    const int ready = ::poll(fds, 2, kWatchIntervalMs);
    if (ready < 0 && errno != EINTR) break;
    if (fds[0].revents != 0) {
      // The bridge is going away: stop watching; the core is left to the shutdown sweep.
      ::close(errorPipe);
      return;
    }
    if (pipeOpen && fds[1].revents != 0) readPipe();
    // End of file normally means the core is gone; a descendant holding the pipe does not
    // keep us from noticing the exit either.
    if (hasExited(child->pid)) {
      if (pipeOpen) readPipe();
      exited = true;
      child->exited->store(true);
    }
  }
  ::close(errorPipe);

  int waitStatus = 0;
  bool unexpected = false;
  {
    std::lock_guard lock(childMutex_);
    while (::waitpid(child->pid, &waitStatus, 0) < 0 && errno == EINTR) {
    }
    child->reaped = true;
    unexpected = !child->stoppedByUs && !shuttingDown_ && !closing_ && child == child_;
  }
  if (text.size() >= kMaxErrorBytes) trimPartialSequence(text);
  if (!base::isValidUtf8(text)) text.clear();
  log_.message("native.mihomo.exit: status=" + std::to_string(terminationStatus(waitStatus)) + " " +
               base::truncateGraphemes(text, kExitTextCharacters));
  if (unexpected) {
    // A core that fails while a restart waits for it is that restart's outcome, not news.
    std::unique_lock lock(restartMutex_);
    const bool restarting = restartInProgress_;
    lock.unlock();
    if (!restarting && hooks_.coreExitedUnexpectedly) hooks_.coreExitedUnexpectedly();
  }
}

void MihomoSupervisor::stopForShutdown() {
  std::lock_guard lock(childMutex_);
  shuttingDown_ = true;
  if (child_ && !child_->reaped) {
    child_->stoppedByUs = true;
    ::kill(child_->pid, SIGTERM);
  }
}

void MihomoSupervisor::restartMihomoSerialized(const std::string& reason, Completion completion) {
  bool starter = false;
  {
    std::lock_guard lock(restartMutex_);
    if (restartInProgress_) {
      restartCompletions_.push_back(std::move(completion));
    } else {
      restartInProgress_ = true;
      restartCompletions_.clear();
      restartCompletions_.push_back(std::move(completion));
      starter = true;
    }
  }
  if (!starter) {
    log_.message("native.mihomo.restart.join: " + reason);
    return;
  }
  log_.message("native.mihomo." + reason);
  // The sweep sleeps and the launch blocks: both run on the pool, never on the caller.
  executors_.post([this] {
    std::shared_ptr<std::atomic<bool>> exited;
    if (!restartMihomo(&exited)) {
      // Nothing was launched, so nothing can answer: no point in waiting out the budget.
      if (hooks_.removeRuntimePlaintextConfigs) hooks_.removeRuntimePlaintextConfigs();
      finishRestart(false);
      return;
    }
    readiness_.waitForController(
        timings_.startWait,
        [this](bool ready) {
          if (!ready) {
            if (hooks_.removeRuntimePlaintextConfigs) hooks_.removeRuntimePlaintextConfigs();
            finishRestart(false);
            return;
          }
          readiness_.ensureProxyPorts([this] {
            if (hooks_.removeRuntimePlaintextConfigs) hooks_.removeRuntimePlaintextConfigs();
            finishRestart(true);
          });
        },
        [this, exited] { return exited->load() || shuttingDown_.load(); });
  });
}

void MihomoSupervisor::finishRestart(bool value) {
  if (value && hooks_.coreReady) hooks_.coreReady();
  std::vector<Completion> completions;
  {
    std::lock_guard lock(restartMutex_);
    completions.swap(restartCompletions_);
    restartInProgress_ = false;
  }
  for (auto& completion : completions) {
    if (completion) completion(value);
  }
}

void MihomoSupervisor::ensureMihomoRunning(Completion completion) {
  const auto tunOn = [this] { return hooks_.readTunSetting && hooks_.readTunSetting(); };
  if (tunOn() && hooks_.tunAdminAuthorizationFailed && hooks_.tunAdminAuthorizationFailed()) {
    log_.message("native.tun.admin.rollback.startup");
    if (hooks_.rollbackTunAfterAdminFailure) hooks_.rollbackTunAfterAdminFailure();
    tunRuntimeEnsured_ = false;
  }
  readiness_.isControllerReady([this, tunOn, completion = std::move(completion)](bool ready) {
    if (ready) {
      if (tunOn() && !tunRuntimeEnsured_.exchange(true)) {
        // A core that answers may still run without TUN: restart it once per run.
        restartMihomoSerialized("ensureTunRestart", completion);
      } else {
        completion(true);
      }
      return;
    }
    if (hooks_.hasRunnableConfig && hooks_.hasRunnableConfig()) {
      restartMihomoSerialized("start", completion);
    } else {
      completion(false);
    }
  });
}

void MihomoSupervisor::reloadOrRestartMihomo(Completion completion) {
  if (hooks_.readTunSetting && hooks_.readTunSetting()) {
    // A TUN change always needs a new core.
    restartMihomoSerialized("restartForTun", std::move(completion));
    return;
  }
  readiness_.isControllerReady([this, completion = std::move(completion)](bool ready) {
    if (!ready) {
      restartMihomoSerialized("restart", completion);
      return;
    }
    controller_.httpJSON("PUT", controller_.base() + "/configs?force=true", Json::object(),
                         [this, completion](const Result<Json>&) {
                           readiness_.ensureProxyPorts([this, completion] {
                             if (hooks_.removeRuntimePlaintextConfigs)
                               hooks_.removeRuntimePlaintextConfigs();
                             readiness_.waitForController(timings_.reloadWait, completion);
                           });
                         });
  });
}

}  // namespace qev::core
