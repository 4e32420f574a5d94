#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/constants.h"
#include "base/executors.h"
#include "base/logger.h"
#include "controller/controller_client.h"
#include "core/controller_readiness.h"
#include "storage/profile.h"

namespace qev::core {

// What the launcher needs from storage, the runtime configuration and TUN mode.
struct CoreHooks {
  std::function<bool()> prepareRuntimeConfigFile;  // plaintext file for the core in place
  std::function<bool()> hasRunnableConfig;
  std::function<void()> removeRuntimePlaintextConfigs;
  std::function<void()> ensureGeoDataFiles;
  std::function<bool()> readTunSetting;
  std::function<bool()> tunAdminAuthorizationFailed;
  std::function<void()> rollbackTunAfterAdminFailure;
  // The current core ended on its own: not stopped by qev, not during a restart. Runs on the
  // core's watcher thread.
  std::function<void()> coreExitedUnexpectedly;
  // A restart ended with the controller answering.
  std::function<void()> coreReady;
};

struct SupervisorTimings {
  std::chrono::milliseconds startWait = kCoreStartWait;
  std::chrono::milliseconds reloadWait = kCoreReloadWait;
  std::chrono::milliseconds stalePause = kStaleCorePause;
};

// The pkill to sweep stray cores with: /usr/bin/pkill on macOS, the one on PATH elsewhere.
std::string pkillPath(storage::Platform platform);

// pkill -f each stale-core pattern of this user, a pause, then pkill -9 -f each. Blocking.
void sweepStaleCores(const storage::Profile& profile, std::chrono::milliseconds pause);

// Runs the proxy core as a child process: sweeps stale copies, launches it through the libs
// folder's launcher, logs its exit, and joins concurrent restart requests into one.
class MihomoSupervisor {
 public:
  using Completion = std::function<void(bool)>;

  MihomoSupervisor(const storage::Profile& profile, const base::Logger& log,
                   const base::Logger& systemLog, base::Executors& executors,
                   ControllerReadiness& readiness, controller::ControllerClient& controller,
                   CoreHooks hooks, SupervisorTimings timings = {});
  // Stops watching the core (it keeps running; shutdown terminates it first). The executors
  // must be stopped before, so that no restart is running.
  ~MihomoSupervisor();
  MihomoSupervisor(const MihomoSupervisor&) = delete;
  MihomoSupervisor& operator=(const MihomoSupervisor&) = delete;

  // pkill -f each stale-core pattern, a pause, then pkill -9 -f each. Blocking.
  void killStaleMihomo() const;
  // Sweep, then launch a new core. Blocking; never on the main thread. Returns whether a core
  // was launched; `exited` then receives the flag that tells whether it has ended since.
  bool restartMihomo(std::shared_ptr<std::atomic<bool>>* exited = nullptr);
  // Restarts the core and reports whether its controller answered in time; requests made while
  // a restart runs join it and receive its outcome. Returns at once.
  void restartMihomoSerialized(const std::string& reason, Completion completion);
  // Starts the core when its controller does not answer (and a configuration exists).
  void ensureMihomoRunning(Completion completion);
  // Makes the core take up a newly written configuration: reload, or restart.
  void reloadOrRestartMihomo(Completion completion);
  // For quitting: no core is launched or restarted from now on, and the launched core, if it
  // still runs, gets SIGTERM (no wait). Restarts in flight finish with false.
  void stopForShutdown();

  // Whether the core was restarted once in this run with TUN on; TUN switching resets it.
  void setTunRuntimeEnsured(bool value) { tunRuntimeEnsured_ = value; }
  bool tunRuntimeEnsured() const { return tunRuntimeEnsured_; }

 private:
  struct Child;
  struct Watcher {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };

  void finishRestart(bool value);
  void watch(std::shared_ptr<Child> child, int errorPipe);

  const storage::Profile& profile_;
  const base::Logger& log_;
  const base::Logger& systemLog_;
  base::Executors& executors_;
  ControllerReadiness& readiness_;
  controller::ControllerClient& controller_;
  CoreHooks hooks_;
  SupervisorTimings timings_;

  std::mutex restartMutex_;  // the restart-join state below
  bool restartInProgress_ = false;
  std::vector<Completion> restartCompletions_;
  std::atomic<bool> tunRuntimeEnsured_{false};

  std::mutex childMutex_;          // the core's record and its watchers
  std::shared_ptr<Child> child_;   // the most recently launched core
  std::vector<Watcher> watchers_;  // one per launch, joined once their core ended
  bool closing_ = false;
  std::atomic<bool> shuttingDown_{false};  // set under childMutex_, read anywhere
  int wakePipe_[2] = {-1, -1};             // written once at destruction to release the watchers
};

}  // namespace qev::core
