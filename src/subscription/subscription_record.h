#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/json.h"
#include "net/http_session.h"
#include "storage/protected_files.h"

namespace qev::subscription {

// The account's usage as the panel reports it with every download.
struct Usage {
  std::uint64_t upload = 0;
  std::uint64_t download = 0;
  std::uint64_t total = 0;
  std::optional<std::int64_t> expire;  // unix seconds; none when the plan does not expire
};

// The last good download: where it came from (the link holds the user's token, so the record
// is kept protected), what the panel said about the account, and when to download again.
struct SubscriptionRecord {
  static constexpr int kDefaultIntervalHours = 24;

  std::string url;
  std::optional<Usage> usage;
  std::int64_t updatedAt = 0;  // unix seconds
  int updateIntervalHours = kDefaultIntervalHours;
};

// "upload=1; download=2; total=3; expire=4"; absent numbers read 0, an empty expire as none.
// Nothing when no field is recognised.
std::optional<Usage> parseSubscriptionUserinfo(std::string_view header);
// Whole hours from 1 to a year; nothing otherwise.
std::optional<int> parseUpdateIntervalHours(std::string_view header);
// The record of a download of `url` answered with `headers`, made at `now`.
SubscriptionRecord recordOfDownload(std::string url, const net::HeaderList& headers,
                                    std::int64_t now);

// getConfig's "subscriptionInfo": {upload, download, total, expire, updatedAt,
// updateIntervalHours}, or null when the usage is unknown.
Json subscriptionInfoJson(const std::optional<SubscriptionRecord>& record);

// Loads and saves the record in its protected file.
class SubscriptionRecordStore {
 public:
  SubscriptionRecordStore(const std::filesystem::path& file, const storage::ProtectedFiles& files)
      : file_(file), files_(files) {}
  std::optional<SubscriptionRecord> load() const;
  std::error_code save(const SubscriptionRecord& record) const;

 private:
  std::filesystem::path file_;
  const storage::ProtectedFiles& files_;
};

}  // namespace qev::subscription
