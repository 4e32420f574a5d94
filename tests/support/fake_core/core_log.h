#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace fake_core {

enum class LogLevel { kDebug = 0, kInfo, kWarning, kError, kSilent };

// "debug", "info", "warning", "error", "silent" in any case; none for anything else.
std::optional<LogLevel> logLevelFromName(std::string_view name);
std::string logLevelName(LogLevel level);

// RFC 3339 with nanoseconds and trailing zeros trimmed, in local time, as the core prints it.
std::string rfc3339Nano(std::chrono::system_clock::time_point when);

// The core's log: `time="..." level=info msg="..."` lines on standard output, filtered by the
// configured level (fatal lines are always written).
class CoreLog {
 public:
  void setLevel(LogLevel level) { level_.store(level); }
  LogLevel level() const { return level_.load(); }

  void debug(std::string_view message) { write(LogLevel::kDebug, "debug", message); }
  void info(std::string_view message) { write(LogLevel::kInfo, "info", message); }
  void warning(std::string_view message) { write(LogLevel::kWarning, "warning", message); }
  void error(std::string_view message) { write(LogLevel::kError, "error", message); }
  void fatal(std::string_view message);

 private:
  void write(LogLevel level, std::string_view levelName, std::string_view message);
  void emit(std::string_view levelName, std::string_view message);

  std::atomic<LogLevel> level_{LogLevel::kInfo};
  std::mutex mutex_;
};

// A value as the logger prints it: bare when it only holds safe characters, else quoted with
// backslash escapes.
std::string logValue(std::string_view text);

}  // namespace fake_core
