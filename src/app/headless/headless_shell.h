#pragma once

#include <chrono>
#include <iosfwd>

#include "storage/profile.h"

namespace qev::app {

struct HeadlessOptions {
  // How long the end of input waits for commands that are still running.
  std::chrono::milliseconds drainBudget{std::chrono::seconds(70)};
};

// Runs the native side without a window, speaking JSON lines: page messages in on `in`, one
// answer per line out on `out`. Returns the process exit code. SIGINT and SIGTERM end it with
// the same shutdown as the end of input.
int runHeadless(std::istream& in, std::ostream& out, std::ostream& err,
                const storage::Environment& environment, HeadlessOptions options = {});

}  // namespace qev::app
