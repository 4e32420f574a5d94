#pragma once

#include <memory>

#include "base/logger.h"
#include "storage/profile.h"

namespace qev::sysproxy {

// Points the operating system's proxy settings at the local core, or turns them off. Both calls
// block until the platform tools have run and report every outcome through the log only.
class SystemProxyBackend {
 public:
  virtual ~SystemProxyBackend() = default;
  virtual void enableSystemProxy() = 0;
  virtual void disableSystemProxy() = 0;
  // Whether the platform's proxy is on and points at the core's HTTP port: qev's doing, not a
  // setting of the user's own. Read-only.
  virtual bool pointsAtCore() = 0;
};

// The backend of the profile's platform: network services on macOS, gsettings on Linux.
std::unique_ptr<SystemProxyBackend> makeSystemProxyBackend(const storage::Profile& profile,
                                                           const base::Logger& log);

}  // namespace qev::sysproxy
