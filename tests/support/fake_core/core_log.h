#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fake_core {

enum class LogLevel { kDebug = 0, kInfo, kWarning, kError, kSilent };

// "debug", "info", "warning", "error", "silent" in any case; none for anything else.
std::optional<LogLevel> logLevelFromName(std::string_view name);
std::string logLevelName(LogLevel level);

// RFC 3339 with nanoseconds and trailing zeros trimmed, in local time, as the core prints it.
std::string rfc3339Nano(std::chrono::system_clock::time_point when);

// One reader of the /logs stream: the entries at or above its level, queued until taken.
class LogSubscription {
 public:
  explicit LogSubscription(LogLevel level) : level_(level) {}
  void offer(LogLevel level, const std::string& levelName, std::string_view message);
  // The next {"type","payload"} line, waiting up to `wait`; none when nothing came.
  std::optional<std::string> take(std::chrono::milliseconds wait);

 private:
  const LogLevel level_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<std::string> lines_;
};

// The core's log: `time="..." level=info msg="..."` lines on standard output, filtered by the
// configured level (fatal lines are always written). Stream readers get every entry at their
// own level, whatever the configured one, as the core publishes before it filters.
class CoreLog {
 public:
  std::shared_ptr<LogSubscription> subscribe(LogLevel level);
  void unsubscribe(const std::shared_ptr<LogSubscription>& subscription);

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
  std::mutex subscribersMutex_;
  std::vector<std::shared_ptr<LogSubscription>> subscribers_;
};

// A value as the logger prints it: bare when it only holds safe characters, else quoted with
// backslash escapes.
std::string logValue(std::string_view text);

}  // namespace fake_core
