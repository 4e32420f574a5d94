#pragma once

#include <string>
#include <string_view>

namespace qev::subscription {

// Rewrites a subscription link into the form the panel serves to the core: a short link
// "/s/<token>" becomes the panel's subscribe endpoint on `fallbackApiBase`, the old getConfig
// paths become "/client/subscribe", and that endpoint gets "flag=clash.meta" once.
std::string rewriteSubscribeUrl(std::string_view link, std::string_view fallbackApiBase);

}  // namespace qev::subscription
