#pragma once

#include <string_view>

namespace qev {

// Fixed local endpoints of the proxy core; the runtime configuration pins them.
inline constexpr int kHttpProxyPort = 33210;
inline constexpr int kSocksProxyPort = 33211;
inline constexpr int kControllerPort = 33212;
inline constexpr std::string_view kControllerBase = "http://127.0.0.1:33212";
inline constexpr std::string_view kProxyHost = "127.0.0.1";

// The selector group name the frontend uses.
inline constexpr std::string_view kSelectorGroup = "SELECT";
// The product's own selector group, which the frontend's "SELECT" stands for.
inline constexpr std::string_view kProductGroup = "QEV加速";

}  // namespace qev
