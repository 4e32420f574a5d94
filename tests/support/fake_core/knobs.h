#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace fake_core {

// Text without surrounding blanks and line ends.
std::string trim(std::string_view text);

// An environment variable, empty when unset.
std::string env(const char* name);

// How delay tests fail, from FAKE_CORE_DELAY_FAIL (see tests/support/README.md).
struct DelayFailure {
  enum class Outcome { kNone, kTimeout, kError };
  Outcome all = Outcome::kNone;      // the outcome of every delay test
  Outcome dead = Outcome::kTimeout;  // the outcome when a dead node is on the tested path
  std::set<std::string> deadNames;

  // The outcome for a test whose path (the tested name, its current member, ...) is `path`.
  Outcome outcomeFor(const std::vector<std::string>& path) const;
};

// "timeout", "error", "[timeout:|error:]name,name,..." (newline-separated when the value holds
// a newline, so names may carry commas); blank means no failure.
DelayFailure parseDelayFailure(std::string_view spec);

// Fault knobs, read once from the environment at start.
struct Knobs {
  int startDelayMs = 0;                    // FAKE_CORE_START_DELAY_MS
  int applyDelayMs = 0;                    // FAKE_CORE_APPLY_DELAY_MS
  std::optional<int> exitAtStart;          // FAKE_CORE_EXIT_AT_START
  std::string stderrText;                  // FAKE_CORE_STDERR
  std::optional<std::size_t> stderrBytes;  // FAKE_CORE_STDERR_BYTES
  bool hangController = false;             // FAKE_CORE_HANG_CONTROLLER
  bool refuseSelect = false;               // FAKE_CORE_REFUSE_SELECT
  std::string delayFail;                   // FAKE_CORE_DELAY_FAIL
  std::string delayFailFile;               // FAKE_CORE_DELAY_FAIL_FILE
  int delayMs = 42;                        // FAKE_CORE_DELAY_MS
  std::string requestLog;                  // FAKE_CORE_REQUEST_LOG
  std::string configLog;                   // FAKE_CORE_CONFIG_LOG

  // The failure rule in force now: the file's content when the file exists, else the variable.
  DelayFailure currentDelayFailure() const;
  // What FAKE_CORE_EXIT_AT_START writes to standard error.
  std::string startupStderr() const;
};

Knobs knobsFromEnvironment();

}  // namespace fake_core
