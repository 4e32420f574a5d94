#pragma once

#include <optional>
#include <string_view>

#include "base/error.h"

namespace qev::config {

// The failure of a command whose subscription (downloaded or stored) the core could not run.
inline BridgeError invalidSubscriptionError() {
  return BridgeError::native(5, "invalid subscription");
}

// The text without a leading UTF-8 byte-order mark.
std::string_view withoutByteOrderMark(std::string_view text);

// Why a downloaded subscription cannot replace the stored one, or none when the core can run
// it: valid UTF-8, not blank, and a top-level `proxies` section with at least one entry or a
// top-level `proxy-providers` section. The reason is short and never quotes the content.
std::optional<std::string_view> unusableSubscriptionReason(std::string_view text);

}  // namespace qev::config
