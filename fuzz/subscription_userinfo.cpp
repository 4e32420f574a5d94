// The account headers the panel sends with every download, read into the subscription record.

#include "fuzz_check.h"
#include "subscription/subscription_record.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qev;
  const std::string_view text = fuzz::textOf(data, size);
  subscription::parseSubscriptionUserinfo(text);
  if (const auto hours = subscription::parseUpdateIntervalHours(text)) {
    FUZZ_CHECK(*hours >= 1 && *hours <= 24 * 366);
  }
  const auto record =
      subscription::recordOfDownload("https://panel.example/s/x",
                                     {{"Subscription-Userinfo", std::string(text)},
                                      {"profile-update-interval", std::string(text)}},
                                     1700000000);
  FUZZ_CHECK(record.updateIntervalHours >= 1);
  const Json info = subscription::subscriptionInfoJson(record);
  FUZZ_CHECK(info.is_null() || (info.is_object() && info["upload"].is_number_unsigned()));
  info.dump();
  return 0;
}
