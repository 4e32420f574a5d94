#include "sysproxy/system_proxy_requests.h"

#include <cstdlib>
#include <limits>

namespace qev::sysproxy {
namespace {

std::string describeRequest(const std::string& reason, bool enabled, std::int64_t revision) {
  return reason + " enabled=" + (enabled ? "true" : "false") +
         " revision=" + std::to_string(revision);
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

std::int64_t SystemProxyRequests::recordWish(bool enabled) {
  std::lock_guard lock(stateMutex_);
  systemProxyEnabledByApp_ = enabled;
  return nextRevision();
}

std::optional<std::int64_t> SystemProxyRequests::withdrawWish() {
  std::lock_guard lock(stateMutex_);
  if (!systemProxyEnabledByApp_) return std::nullopt;
  systemProxyEnabledByApp_ = false;
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

void SystemProxyRequests::requestSystemProxy(bool enabled, std::string reason,
                                             Completion completion) {
  const std::int64_t revision = recordWish(enabled);
  persistInOrder(revision, enabled);
  applyQueue_->post(
      [this, enabled, revision, reason = std::move(reason), completion = std::move(completion)] {
        if (isCurrent(revision, enabled)) {
          if (enabled) {
            backend_->enableSystemProxy();
          } else {
            backend_->disableSystemProxy();
          }
          log_.message("native.systemProxy.applied: " + describeRequest(reason, enabled, revision));
        } else {
          log_.message("native.systemProxy.skip: " + describeRequest(reason, enabled, revision));
        }
        if (completion) completion();
      });
}

bool SystemProxyRequests::isSystemProxyDesired() const {
  std::lock_guard lock(stateMutex_);
  return systemProxyEnabledByApp_;
}

bool SystemProxyRequests::markDisabledForShutdown() {
  return withdrawWish().has_value();
}

bool SystemProxyRequests::switchOffForShutdown() {
  const auto revision = withdrawWish();
  if (!revision) return false;
  persistInOrder(*revision, false);
  backend_->disableSystemProxy();
  return true;
}

}  // namespace qev::sysproxy
