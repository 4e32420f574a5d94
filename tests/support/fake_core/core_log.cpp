#include "core_log.h"

#include <time.h>

#include <cctype>
#include <cstdio>

#include <nlohmann/json.hpp>

namespace fake_core {

std::optional<LogLevel> logLevelFromName(std::string_view name) {
  std::string lowered;
  for (char c : name)
    lowered.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  if (lowered == "debug") return LogLevel::kDebug;
  if (lowered == "info") return LogLevel::kInfo;
  if (lowered == "warning") return LogLevel::kWarning;
  if (lowered == "error") return LogLevel::kError;
  if (lowered == "silent") return LogLevel::kSilent;
  return std::nullopt;
}

std::string logLevelName(LogLevel level) {
  switch (level) {
    case LogLevel::kDebug:
      return "debug";
    case LogLevel::kInfo:
      return "info";
    case LogLevel::kWarning:
      return "warning";
    case LogLevel::kError:
      return "error";
    case LogLevel::kSilent:
      return "silent";
  }
  return "info";
}

std::string rfc3339Nano(std::chrono::system_clock::time_point when) {
  const auto sinceEpoch = when.time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch);
  const long nanos = static_cast<long>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch - seconds).count());
  const time_t t = static_cast<time_t>(seconds.count());
  struct tm local {};
  localtime_r(&t, &local);
  char base[32];
  strftime(base, sizeof base, "%Y-%m-%dT%H:%M:%S", &local);
  std::string out = base;
  if (nanos > 0) {
    char fraction[32];
    std::snprintf(fraction, sizeof fraction, ".%09ld", nanos);
    std::string f = fraction;
    while (f.back() == '0') f.pop_back();
    out += f;
  }
  const long offset = local.tm_gmtoff;
  if (offset == 0) {
    out += 'Z';
  } else {
    char zone[32];
    const long magnitude = offset < 0 ? -offset : offset;
    std::snprintf(zone, sizeof zone, "%c%02ld:%02ld", offset < 0 ? '-' : '+', magnitude / 3600,
                  (magnitude % 3600) / 60);
    out += zone;
  }
  return out;
}

std::string logValue(std::string_view text) {
  bool bare = !text.empty();
  for (char c : text) {
    const bool safe = std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' ||
                      c == '_' || c == '/' || c == '@' || c == '^' || c == '+';
    if (!safe) bare = false;
  }
  if (bare) return std::string(text);
  std::string out = "\"";
  for (char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(c));
          out += escaped;
        } else {
          out.push_back(c);
        }
    }
  }
  out += '"';
  return out;
}

void LogSubscription::offer(LogLevel level, const std::string& levelName,
                            std::string_view message) {
  if (level < level_) return;
  const nlohmann::json line = {{"type", levelName}, {"payload", std::string(message)}};
  {
    std::lock_guard lock(mutex_);
    if (lines_.size() >= 4096) lines_.pop_front();  // a reader that stalls loses the oldest
    lines_.push_back(line.dump() + "\n");
  }
  arrived_.notify_one();
}

std::optional<std::string> LogSubscription::take(std::chrono::milliseconds wait) {
  std::unique_lock lock(mutex_);
  if (!arrived_.wait_for(lock, wait, [this] { return !lines_.empty(); })) return std::nullopt;
  std::string line = std::move(lines_.front());
  lines_.pop_front();
  return line;
}

std::shared_ptr<LogSubscription> CoreLog::subscribe(LogLevel level) {
  auto subscription = std::make_shared<LogSubscription>(level);
  std::lock_guard lock(subscribersMutex_);
  subscribers_.push_back(subscription);
  return subscription;
}

void CoreLog::unsubscribe(const std::shared_ptr<LogSubscription>& subscription) {
  std::lock_guard lock(subscribersMutex_);
  std::erase(subscribers_, subscription);
}

void CoreLog::write(LogLevel level, std::string_view levelName, std::string_view message) {
  {
    std::lock_guard lock(subscribersMutex_);
    for (const auto& subscriber : subscribers_) {
      subscriber->offer(level, std::string(levelName), message);
    }
  }
  const LogLevel threshold = level_.load();
  if (threshold == LogLevel::kSilent || level < threshold) return;
  emit(levelName, message);
}

void CoreLog::fatal(std::string_view message) {
  emit("fatal", message);
}

void CoreLog::emit(std::string_view levelName, std::string_view message) {
  std::string line = "time=\"" + rfc3339Nano(std::chrono::system_clock::now()) +
                     "\" level=" + std::string(levelName) + " msg=" + logValue(message) + "\n";
  std::lock_guard lock(mutex_);
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

}  // namespace fake_core
