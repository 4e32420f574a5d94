#pragma once

#include <chrono>
#include <string_view>

namespace qev {

// Fixed local endpoints of the proxy core; the runtime configuration pins them.
inline constexpr int kHttpProxyPort = 33210;
inline constexpr int kSocksProxyPort = 33211;
inline constexpr int kControllerPort = 33212;
inline constexpr std::string_view kControllerBase = "http://127.0.0.1:33212";
inline constexpr std::string_view kProxyHost = "127.0.0.1";
// The origin of the application's own page: the only one the core's controller grants.
inline constexpr std::string_view kAppOrigin = "qevnative://app";

// Time budgets of the core's controller and launcher.
inline constexpr std::chrono::milliseconds kControllerRequestTimeout{10000};
inline constexpr std::chrono::milliseconds kControllerProbeTimeout{800};
inline constexpr std::chrono::milliseconds kControllerPollInterval{400};
inline constexpr std::chrono::milliseconds kCoreStartWait{30000};   // after a launch
inline constexpr std::chrono::milliseconds kCoreReloadWait{15000};  // after a configuration reload
inline constexpr std::chrono::milliseconds kStaleCorePause{250};    // between pkill and pkill -9

// The selector group name the frontend uses.
inline constexpr std::string_view kSelectorGroup = "SELECT";
// The product's own selector group, which the frontend's "SELECT" stands for.
inline constexpr std::string_view kProductGroup = "QEV加速";

}  // namespace qev
