#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/json.h"

namespace qev::config {

// The core's routing mode ("rule", "global" or "direct") for a mode word or an interface label
// (Chinese, Japanese, Korean, English), ignoring surrounding white space and Latin case; none
// for an unknown or absent value. There is no default: callers choose their own fallback.
std::optional<std::string> normalizedMihomoMode(std::optional<std::string_view> value);

// The routing mode carried by a bridge command's argument array: the first argument as a label,
// or the first of its "mode", "routingMode" and "routing_mode" values that names a mode.
std::optional<std::string> runtimeModeFromArgs(const Json& args);

}  // namespace qev::config
