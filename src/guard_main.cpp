// qev-guard: the crash guard, started by qev with its end of a socket on standard input. A
// program of its own, without the toolkit and the web engine, so that it stays small while it
// waits out the app.
#include <unistd.h>

#include "bridge/diagnostic_log.h"
#include "guard/crash_guard.h"
#include "storage/profile.h"

int main() {
  const auto profile =
      qev::storage::Profile::forThisPlatform(qev::storage::Environment::fromProcess());
  const qev::bridge::DiagnosticLog log(profile.paths.log);
  return qev::guard::runGuard(STDIN_FILENO, profile, log);
}
