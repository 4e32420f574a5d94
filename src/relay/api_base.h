#pragma once

#include <optional>
#include <string>

namespace qev::relay {

// The panel API base used when the page has none of its own: the deployment's base, kept in the
// binary only enciphered and deciphered on each call, unless `override` (QEV_API_BASE, read by
// the caller once at start-up) names one. Trailing slashes are dropped.
std::string nativeFallbackAPIBase(const std::optional<std::string>& override);

}  // namespace qev::relay
