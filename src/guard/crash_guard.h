#pragma once

#include <sys/types.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "base/logger.h"
#include "storage/instance_lock.h"
#include "storage/profile.h"
#include "sysproxy/system_proxy_backend.h"

// A crash must never leave the desktop pointing at a dead proxy. A small guard process (the
// qev-guard program installed with qev) holds the read end of a pipe whose write end only the
// app holds. A clean quit writes kStandDown first; any other end of the app is end of file,
// and the guard then switches the system proxy off and stops the core.
namespace qev::guard {

// The guard program of the app at `executable`: beside it (the build tree, the macOS bundle),
// else in ../libexec/qev (an installed bin/qev).
std::filesystem::path guardProgramBeside(const std::filesystem::path& executable);

// What the guard does once qev has gone without quitting: switches the system proxy off if it
// still points at the core (a setting of the user's own stays), stops every core of this data
// folder and removes the plaintext runtime files. Blocking.
void cleanUpAfterApp(sysproxy::SystemProxyBackend& backend, const storage::Profile& profile,
                     const base::Logger& log);

// The guard process's life: waits on `input` for a stand-down or end of file. At end of file,
// once it holds the instance lock (so no other qev runs on this data folder), it cleans up.
// Returns the exit status.
int runGuard(int input, const storage::Profile& profile, const base::Logger& log);

// The app's side: the instance lock and the guard it keeps running.
class CrashGuard {
 public:
  // Nothing when another qev holds the data folder: its own guard covers it. `executable` is
  // the app's own; the guard program is found beside it.
  static std::unique_ptr<CrashGuard> engage(const storage::Profile& profile,
                                            const std::filesystem::path& executable,
                                            const base::Logger& log);
  // Stands the guard down: for a clean quit, after shutdown has done the guard's work.
  ~CrashGuard();
  CrashGuard(const CrashGuard&) = delete;
  CrashGuard& operator=(const CrashGuard&) = delete;

 private:
  CrashGuard(storage::InstanceLock lock, std::filesystem::path program, const base::Logger& log);
  bool launch();  // mutex_ held
  void watch();

  storage::InstanceLock lock_;
  std::filesystem::path program_;
  const base::Logger& log_;
  std::mutex mutex_;
  pid_t pid_ = -1;
  int pipe_ = -1;  // write end; closing it without kStandDown sets the guard off
  int relaunches_ = 0;
  std::atomic<bool> standingDown_{false};
  std::thread watcher_;  // relaunches a guard that died while the app runs
};

}  // namespace qev::guard
