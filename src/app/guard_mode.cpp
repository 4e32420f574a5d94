#include "app/guard_mode.h"

#include <unistd.h>

#include "bridge/diagnostic_log.h"
#include "guard/crash_guard.h"

namespace qev::app {

int runGuardMode(const storage::Environment& environment) {
  const auto profile = storage::Profile::forThisPlatform(environment);
  const bridge::DiagnosticLog log(profile.paths.log);
  return guard::runGuard(STDIN_FILENO, profile, log);
}

}  // namespace qev::app
