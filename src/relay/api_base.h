#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qev::relay {

// The panel API base used when the page has none of its own: the deployment's base, kept in the
// binary only enciphered and deciphered on each call, unless `override` (QEV_API_BASE, read by
// the caller once at start-up) names one. Trailing slashes are dropped.
std::string nativeFallbackAPIBase(const std::optional<std::string>& override);

// The page scripts carry the deployment's base as an enciphered byte list. When the native side
// uses another base (QEV_API_BASE), the page has to talk to that one too: `script` with every
// "[<deployment bytes>]" list replaced by the enciphered bytes of `base`.
std::string withPageApiBase(std::string script, std::string_view base);

}  // namespace qev::relay
