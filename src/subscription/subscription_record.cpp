#include "subscription/subscription_record.h"

#include <charconv>
#include <limits>

#include "base/strings.h"

namespace qev::subscription {
namespace {

constexpr int kLongestIntervalHours = 24 * 366;
constexpr double kLatestExpire = 253402300800.0;            // 10000-01-01, in unix seconds
constexpr double kByteCountLimit = 18446744073709551616.0;  // 2^64

template <class Number>
std::optional<Number> parseNumber(std::string_view text) {
  text = base::trimWhitespace(text);
  Number value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

const net::HeaderList::value_type* findHeader(const net::HeaderList& headers,
                                              std::string_view name) {
  for (const auto& header : headers) {
    if (base::toLowerAscii(header.first) == name) return &header;
  }
  return nullptr;
}

}  // namespace

std::optional<Usage> parseSubscriptionUserinfo(std::string_view header) {
  Usage usage;
  bool recognised = false;
  for (std::string_view rest = header; !rest.empty();) {
    const auto semicolon = rest.find(';');
    const std::string_view field = rest.substr(0, semicolon);
    rest = semicolon == std::string_view::npos ? std::string_view() : rest.substr(semicolon + 1);
    const auto equals = field.find('=');
    if (equals == std::string_view::npos) continue;
    const std::string key = base::toLowerAscii(base::trimWhitespace(field.substr(0, equals)));
    const std::string_view value = field.substr(equals + 1);
    if (key == "expire") {
      recognised = true;
      // Some panels send a float or an empty value for plans without an end.
      // A date past the year 9999 is no date: the plan is treated as one without an end.
      if (const auto seconds = parseNumber<double>(value);
          seconds && *seconds > 0 && *seconds < kLatestExpire) {
        usage.expire = static_cast<std::int64_t>(*seconds);
      }
      continue;
    }
    std::uint64_t* target = key == "upload"     ? &usage.upload
                            : key == "download" ? &usage.download
                            : key == "total"    ? &usage.total
                                                : nullptr;
    if (target == nullptr) continue;
    recognised = true;
    if (const auto number = parseNumber<double>(value); number && *number >= 0) {
      *target = *number < kByteCountLimit ? static_cast<std::uint64_t>(*number)
                                          : std::numeric_limits<std::uint64_t>::max();
    }
  }
  return recognised ? std::optional<Usage>(usage) : std::nullopt;
}

std::optional<int> parseUpdateIntervalHours(std::string_view header) {
  const auto hours = parseNumber<int>(header);
  if (!hours || *hours < 1 || *hours > kLongestIntervalHours) return std::nullopt;
  return hours;
}

SubscriptionRecord recordOfDownload(std::string url, const net::HeaderList& headers,
                                    std::int64_t now) {
  SubscriptionRecord record;
  record.url = std::move(url);
  record.updatedAt = now;
  if (const auto* userinfo = findHeader(headers, "subscription-userinfo")) {
    record.usage = parseSubscriptionUserinfo(userinfo->second);
  }
  if (const auto* interval = findHeader(headers, "profile-update-interval")) {
    record.updateIntervalHours = parseUpdateIntervalHours(interval->second)
                                     .value_or(SubscriptionRecord::kDefaultIntervalHours);
  }
  return record;
}

Json subscriptionInfoJson(const std::optional<SubscriptionRecord>& record) {
  if (!record || !record->usage) return nullptr;
  const Usage& usage = *record->usage;
  return {{"upload", usage.upload},
          {"download", usage.download},
          {"total", usage.total},
          {"expire", usage.expire ? Json(*usage.expire) : Json(nullptr)},
          {"updatedAt", record->updatedAt},
          {"updateIntervalHours", record->updateIntervalHours}};
}

std::optional<SubscriptionRecord> SubscriptionRecordStore::load() const try {
  const auto bytes = files_.readProtectedData(file_);
  if (!bytes) return std::nullopt;
  const Json stored = base::parseJson(*bytes);
  if (!stored.is_object() || !stored.contains("url") || !stored["url"].is_string()) {
    return std::nullopt;
  }
  SubscriptionRecord record;
  record.url = stored["url"].get<std::string>();
  record.updatedAt = stored.value("updatedAt", std::int64_t{0});
  record.updateIntervalHours =
      stored.value("updateIntervalHours", SubscriptionRecord::kDefaultIntervalHours);
  if (record.updateIntervalHours < 1 || record.updateIntervalHours > kLongestIntervalHours) {
    record.updateIntervalHours = SubscriptionRecord::kDefaultIntervalHours;
  }
  if (const auto usage = stored.find("usage"); usage != stored.end() && usage->is_object()) {
    Usage u;
    u.upload = usage->value("upload", std::uint64_t{0});
    u.download = usage->value("download", std::uint64_t{0});
    u.total = usage->value("total", std::uint64_t{0});
    if (const auto expire = usage->find("expire"); expire != usage->end() && expire->is_number()) {
      u.expire = expire->get<std::int64_t>();
    }
    record.usage = u;
  }
  return record;
} catch (const Json::exception&) {
  return std::nullopt;  // a value of the wrong type: as good as no record
}

std::error_code SubscriptionRecordStore::save(const SubscriptionRecord& record) const {
  Json stored = {{"url", record.url},
                 {"updatedAt", record.updatedAt},
                 {"updateIntervalHours", record.updateIntervalHours}};
  if (record.usage) {
    stored["usage"] = {{"upload", record.usage->upload},
                       {"download", record.usage->download},
                       {"total", record.usage->total},
                       {"expire", record.usage->expire ? Json(*record.usage->expire) : Json()}};
  }
  return files_.writeProtectedString(stored.dump(), file_);
}

}  // namespace qev::subscription
