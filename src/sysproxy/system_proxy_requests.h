#pragma once

#include <atomic>
#include <chrono>
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

  // Switches the system proxy off without saving "off": the user still wants to be connected,
  // but nothing can serve them now (the core is down). The next start restores the wish.
  void suspend(std::string reason, Completion completion = {});
  // Switches off a system proxy that points at the core's port while `coreServes` says nothing
  // listens there (a crash or power loss left it), logging "native.systemProxy.repair". Queued
  // ahead of any later request; returns at once.
  void repairIfStale(std::function<bool()> coreServes, Completion completion = {});

  // For quitting. From now on no wish is accepted. An "on" wish is saved as "off"; then, behind
  // any switch already running, the system proxy is switched off when qev had it on or it
  // points at the core. Waits up to `limit` for that, then switches on this thread. Returns
  // whether the wish was on.
  bool shutdown(std::chrono::milliseconds limit);

  SystemProxyBackend& backend() { return *backend_; }

 private:
  // The wish of revision r is saved unless a newer one already was, so concurrent callers
  // cannot leave an older wish on disk.
  void persistInOrder(std::int64_t revision, bool enabled);
  // The revision of the new wish, or nothing once shut down.
  std::optional<std::int64_t> recordWish(bool enabled);
  // Switches on the apply queue when revision is still current, logs, completes.
  void enqueue(bool enabled, std::int64_t revision, std::string reason, Completion completion);
  void applySwitch(bool enabled);
  std::int64_t nextRevision();  // stateMutex_ held
  bool isCurrent(std::int64_t revision, bool enabled) const;

  std::unique_ptr<SystemProxyBackend> backend_;
  PersistWish persist_;
  std::shared_ptr<base::SerialQueue> applyQueue_;
  const base::Logger& log_;

  mutable std::mutex stateMutex_;  // held only for a field update, never across a switch
  bool systemProxyEnabledByApp_;
  std::int64_t systemProxyRevision_ = 0;
  bool closed_ = false;  // shutdown has begun

  std::atomic<bool> appliedOn_{false};  // the last switch this run made was "on"

  std::mutex persistMutex_;
  std::int64_t persistedRevision_ = 0;
};

}  // namespace qev::sysproxy
