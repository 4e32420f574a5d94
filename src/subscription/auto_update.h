#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>

#include "base/executors.h"
#include "base/logger.h"
#include "subscription/config_commands.h"
#include "subscription/subscription_record.h"

namespace qev::subscription {

// Downloads the stored subscription link again every update interval the panel names (and at
// start when that is overdue), retrying failures after 5, 15 and then 60 minutes.
class AutoUpdater {
 public:
  struct Hooks {
    std::function<std::optional<SubscriptionRecord>()> record;
    std::function<void(ConfigCommands::RefreshCompletion)> refresh;
    std::function<void()> updated;  // a changed subscription was stored
  };

  // `hour` is an hour's length: tests shorten it, and every other wait with it.
  AutoUpdater(base::Executors& executors, const base::Logger& log, Hooks hooks,
              std::chrono::milliseconds hour = std::chrono::hours(1));

  void start();
  void stop();

 private:
  void schedule(std::chrono::milliseconds delay);  // mutex_ held
  void run(std::uint64_t generation);
  void finished(const Result<ConfigCommands::Refresh>& outcome);
  std::chrono::milliseconds untilDue(const SubscriptionRecord& record) const;

  base::Executors& executors_;
  const base::Logger& log_;
  Hooks hooks_;
  std::chrono::milliseconds hour_;

  std::mutex mutex_;
  bool running_ = false;
  std::uint64_t generation_ = 0;  // only the latest scheduled run goes ahead
  int failures_ = 0;
};

}  // namespace qev::subscription
