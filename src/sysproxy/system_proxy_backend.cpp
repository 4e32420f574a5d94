#include "sysproxy/system_proxy_backend.h"

#include "sysproxy/gsettings_backend.h"
#include "sysproxy/network_services_backend.h"

namespace qev::sysproxy {

std::unique_ptr<SystemProxyBackend> makeSystemProxyBackend(const storage::Profile& profile,
                                                           const base::Logger& log) {
  switch (profile.platform) {
    case storage::Platform::MacOS:
      return std::make_unique<NetworkServicesBackend>(log, profile.paths.libs / "sysproxy");
    case storage::Platform::Linux:
      break;
  }
  return std::make_unique<GSettingsBackend>(log);
}

}  // namespace qev::sysproxy
