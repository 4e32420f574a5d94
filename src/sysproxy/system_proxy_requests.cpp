#include "sysproxy/system_proxy_requests.h"

#include <cstdlib>
#include <future>
#include <limits>
#include <memory>

#include "base/strings.h"

namespace qev::sysproxy {
namespace {

std::string describeRequest(const std::string& reason, bool enabled, std::int64_t revision) {
  return reason + " enabled=" + base::boolText(enabled) + " revision=" + std::to_string(revision);
}

}  // namespace

SystemProxyRequests::SystemProxyRequests(std::unique_ptr<SystemProxyBackend> backend,
                                         PersistWish persist,
                                         std::shared_ptr<base::SerialQueue> applyQueue,
                                         const base::Logger& log, bool savedWish)
    : backend_(std::move(backend)),
      persist_(std::move(persist)),
      applyQueue_(std::move(applyQueue)),
      log_(log),
      systemProxyEnabledByApp_(savedWish) {}

std::int64_t SystemProxyRequests::nextRevision() {
  // Unreachable in practice; a wrapped revision would let an old wish pass as the newest.
  if (systemProxyRevision_ == std::numeric_limits<std::int64_t>::max()) std::abort();
  return ++systemProxyRevision_;
}

std::optional<std::int64_t> SystemProxyRequests::recordWish(bool enabled) {
  std::lock_guard lock(stateMutex_);
  if (closed_) return std::nullopt;
  systemProxyEnabledByApp_ = enabled;
  return nextRevision();
}

bool SystemProxyRequests::isCurrent(std::int64_t revision, bool enabled) const {
  std::lock_guard lock(stateMutex_);
  return systemProxyRevision_ == revision && systemProxyEnabledByApp_ == enabled;
}

void SystemProxyRequests::persistInOrder(std::int64_t revision, bool enabled) {
  std::lock_guard lock(persistMutex_);
  if (revision <= persistedRevision_) return;
  persistedRevision_ = revision;
  if (persist_) persist_(enabled);
}

void SystemProxyRequests::applySwitch(bool enabled) {
  if (enabled) {
    backend_->enableSystemProxy();
  } else {
    backend_->disableSystemProxy();
  }
  appliedOn_ = enabled;
}

void SystemProxyRequests::requestSystemProxy(bool enabled, std::string reason,
                                             Completion completion) {
  const auto revision = recordWish(enabled);
  if (!revision) {
    // Quitting: whatever is asked now would land after the final switch-off.
    log_.message("native.systemProxy.refused: " + reason + " (quitting)");
    if (completion) completion();
    return;
  }
  persistInOrder(*revision, enabled);
  enqueue(enabled, *revision, std::move(reason), std::move(completion));
}

void SystemProxyRequests::enqueue(bool enabled, std::int64_t revision, std::string reason,
                                  Completion completion) {
  applyQueue_->post(
      [this, enabled, revision, reason = std::move(reason), completion = std::move(completion)] {
        if (isCurrent(revision, enabled)) {
          applySwitch(enabled);
          log_.message("native.systemProxy.applied: " + describeRequest(reason, enabled, revision));
        } else {
          log_.message("native.systemProxy.skip: " + describeRequest(reason, enabled, revision));
        }
        if (completion) completion();
      });
}

void SystemProxyRequests::suspend(std::string reason, Completion completion) {
  std::int64_t revision = 0;
  {
    std::lock_guard lock(stateMutex_);
    if (closed_) {
      if (completion) completion();
      return;
    }
    systemProxyEnabledByApp_ = false;
    revision = nextRevision();
  }
  enqueue(false, revision, std::move(reason), std::move(completion));
}

void SystemProxyRequests::repairIfStale(std::function<bool()> coreServes, Completion completion) {
  applyQueue_->post([this, coreServes = std::move(coreServes), completion = std::move(completion)] {
    if (backend_->pointsAtCore() && !coreServes()) {
      applySwitch(false);
      log_.message("native.systemProxy.repair");
    }
    if (completion) completion();
  });
}

bool SystemProxyRequests::isSystemProxyDesired() const {
  std::lock_guard lock(stateMutex_);
  return systemProxyEnabledByApp_;
}

bool SystemProxyRequests::shutdown(std::chrono::milliseconds limit) {
  bool wished = false;
  std::int64_t revision = 0;
  {
    std::lock_guard lock(stateMutex_);
    closed_ = true;
    wished = systemProxyEnabledByApp_;
    systemProxyEnabledByApp_ = false;
    revision = nextRevision();  // outdates every switch still queued
  }
  // Quitting leaves the proxy off, at the next launch too.
  if (wished) persistInOrder(revision, false);

  auto finalSwitch = [this, wished, revision] {
    if (!wished && !appliedOn_ && !backend_->pointsAtCore()) return;
    applySwitch(false);
    log_.message("native.systemProxy.applied: " + describeRequest("shutdown", false, revision));
  };
  // Behind the switch that may be running, so that "off" is the last word.
  auto done = std::make_shared<std::promise<void>>();
  auto finished = done->get_future();
  applyQueue_->post([finalSwitch, done] {
    finalSwitch();
    done->set_value();
  });
  if (finished.wait_for(limit) != std::future_status::ready) {
    log_.message("native.systemProxy.shutdown.timeout");
    finalSwitch();
  }
  return wished;
}

}  // namespace qev::sysproxy
