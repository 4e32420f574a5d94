#include "core/core_watchdog.h"

#include <utility>

namespace qev::core {

CoreWatchdog::CoreWatchdog(WatchdogHooks hooks, const base::Logger& log)
    : hooks_(std::move(hooks)), log_(log) {}

void CoreWatchdog::coreExited() {
  {
    std::lock_guard lock(mutex_);
    // Nobody routed through the core: it stays down until something asks for it.
    if (recovering_ || !hooks_.connectionWanted()) return;
    recovering_ = true;
  }
  attempt();
}

void CoreWatchdog::attempt() {
  std::size_t attemptNumber = 0;
  {
    std::lock_guard lock(mutex_);
    if (!hooks_.connectionWanted()) {
      // The user disconnected (or qev is quitting) meanwhile: nothing left to recover for.
      recovering_ = false;
      return;
    }
    const auto now = Clock::now();
    while (!restarts_.empty() && now - restarts_.front() >= kWindow) restarts_.pop_front();
    if (restarts_.size() < static_cast<std::size_t>(kMaxRestarts)) {
      restarts_.push_back(now);
      attemptNumber = restarts_.size();
    }
  }
  if (attemptNumber == 0) {
    finish(false);
    return;
  }
  log_.message("native.mihomo.watch.restart: attempt=" + std::to_string(attemptNumber));
  hooks_.restart("watchRestart", [this](bool answered) {
    if (answered) {
      finish(true);
    } else {
      attempt();
    }
  });
}

void CoreWatchdog::finish(bool recovered) {
  {
    std::lock_guard lock(mutex_);
    recovering_ = false;
  }
  if (recovered) {
    log_.message("native.mihomo.watch.recovered");
    if (hooks_.recovered) hooks_.recovered();
  } else {
    log_.message("native.mihomo.watch.gaveUp");
    if (hooks_.gaveUp) hooks_.gaveUp();
  }
}

}  // namespace qev::core
