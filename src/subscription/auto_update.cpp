#include "subscription/auto_update.h"

#include <algorithm>
#include <array>

namespace qev::subscription {
namespace {

// In minutes, the waits after the first, second and every later failure.
constexpr std::array<int, 3> kRetryMinutes = {5, 15, 60};

}  // namespace

AutoUpdater::AutoUpdater(base::Executors& executors, const base::Logger& log, Hooks hooks,
                         std::chrono::milliseconds hour)
    : executors_(executors), log_(log), hooks_(std::move(hooks)), hour_(hour) {}

void AutoUpdater::start() {
  std::lock_guard lock(mutex_);
  if (running_) return;
  running_ = true;
  schedule(std::chrono::milliseconds(0));  // the first run decides whether one is overdue
}

void AutoUpdater::stop() {
  std::lock_guard lock(mutex_);
  running_ = false;
  ++generation_;
}

void AutoUpdater::schedule(std::chrono::milliseconds delay) {
  const std::uint64_t generation = ++generation_;
  executors_.postAfter(std::max(delay, std::chrono::milliseconds(0)),
                       [this, generation] { run(generation); });
}

std::chrono::milliseconds AutoUpdater::untilDue(const SubscriptionRecord& record) const {
  const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::system_clock::now().time_since_epoch());
  const auto due = std::chrono::seconds(record.updatedAt) + hour_ * record.updateIntervalHours;
  return std::chrono::duration_cast<std::chrono::milliseconds>(due - now);
}

void AutoUpdater::run(std::uint64_t generation) {
  bool retrying = false;
  {
    std::lock_guard lock(mutex_);
    if (!running_ || generation != generation_) return;
    retrying = failures_ > 0;
  }
  const auto record = hooks_.record();
  if (!record) {
    // No link yet: look again later (a download by the user stores one).
    std::lock_guard lock(mutex_);
    if (running_) schedule(hour_);
    return;
  }
  if (const auto wait = untilDue(*record); wait.count() > 0 && !retrying) {
    // Not due yet, or downloaded by the user meanwhile.
    std::lock_guard lock(mutex_);
    if (running_) schedule(wait);
    return;
  }
  hooks_.refresh([this](Result<ConfigCommands::Refresh> outcome) { finished(outcome); });
}

void AutoUpdater::finished(const Result<ConfigCommands::Refresh>& outcome) {
  std::chrono::milliseconds next = hour_;
  if (!outcome) {
    int minutes = 0;
    {
      std::lock_guard lock(mutex_);
      minutes = kRetryMinutes[std::min<std::size_t>(failures_, kRetryMinutes.size() - 1)];
      ++failures_;
    }
    next = hour_ * minutes / 60;
    log_.message("native.subscribe.auto: failed " + outcome.error().description + "; retry in " +
                 std::to_string(minutes) + " min");
  } else {
    {
      std::lock_guard lock(mutex_);
      failures_ = 0;
    }
    switch (outcome.value()) {
      case ConfigCommands::Refresh::kUpdated:
        log_.message("native.subscribe.auto: updated");
        if (hooks_.updated) hooks_.updated();
        break;
      case ConfigCommands::Refresh::kUnchanged:
        log_.message("native.subscribe.auto: unchanged");
        break;
      case ConfigCommands::Refresh::kNoLink:
        break;
    }
    if (const auto record = hooks_.record()) next = untilDue(*record);
  }
  std::lock_guard lock(mutex_);
  if (running_) schedule(next);
}

}  // namespace qev::subscription
