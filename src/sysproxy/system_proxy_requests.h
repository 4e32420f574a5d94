#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "base/executors.h"
#include "base/logger.h"
#include "sysproxy/system_proxy_backend.h"

namespace qev::sysproxy {

// Turns the wishes of several callers into one switching sequence at a time, of which only the
// latest wish takes effect. Every wish is saved before anything is switched, so a crash during
// a switch still restores the user's choice at the next start.
class SystemProxyRequests {
 public:
  using PersistWish = std::function<void(bool enabled)>;
  using Completion = std::function<void()>;

  // `applyQueue` runs the switching sequences; `savedWish` is the stored choice at start.
  SystemProxyRequests(std::unique_ptr<SystemProxyBackend> backend, PersistWish persist,
                      std::shared_ptr<base::SerialQueue> applyQueue, const base::Logger& log,
                      bool savedWish);

  // Records and saves the wish, then switches on the apply queue unless a newer wish has come
  // in meanwhile. Returns at once; `completion` runs on the apply queue, applied or skipped.
  void requestSystemProxy(bool enabled, std::string reason, Completion completion = {});
  bool isSystemProxyDesired() const;

  // For quitting: when the wish is on, turns it off and outdates any queued switch. Returns
  // whether the wish was on. The caller saves and switches (see switchOffForShutdown).
  bool markDisabledForShutdown();
  // markDisabledForShutdown, and when the wish was on, saves "off" and switches the system proxy
  // off on the calling thread. Returns whether it did.
  bool switchOffForShutdown();

  SystemProxyBackend& backend() { return *backend_; }

 private:
  // The wish of revision r is saved unless a newer one already was, so concurrent callers
  // cannot leave an older wish on disk.
  void persistInOrder(std::int64_t revision, bool enabled);
  // The revision of the new wish.
  std::int64_t recordWish(bool enabled);
  // Turns an "on" wish off; the new revision, or nothing when the wish was already off.
  std::optional<std::int64_t> withdrawWish();
  std::int64_t nextRevision();  // stateMutex_ held
  bool isCurrent(std::int64_t revision, bool enabled) const;

  std::unique_ptr<SystemProxyBackend> backend_;
  PersistWish persist_;
  std::shared_ptr<base::SerialQueue> applyQueue_;
  const base::Logger& log_;

  mutable std::mutex stateMutex_;  // held only for a field update, never across a switch
  bool systemProxyEnabledByApp_;
  std::int64_t systemProxyRevision_ = 0;

  std::mutex persistMutex_;
  std::int64_t persistedRevision_ = 0;
};

}  // namespace qev::sysproxy
