#include "config/hidden_choices.h"

#include <algorithm>
#include <array>
#include <iterator>

#include "base/strings.h"

namespace qev::config {
namespace {

constexpr std::array<std::string_view, 14> kHiddenNames = {
    "自动选择", "自動選擇", "Auto Select", "Automatic",        "Auto",      "自動選択", "자동 선택",
    "故障转移", "故障轉移", "Fallback",    "フェイルオーバー", "장애 조치", "DIRECT",   "REJECT",
};

constexpr std::array<std::string_view, 19> kHiddenPrefixes = {
    "剩余流量",    "剩餘流量",          "距离下次重置", "距離下次重置", "下次重置",
    "套餐到期",    "Remaining Traffic", "Next Reset",   "Reset",        "Plan Expires",
    "Expires",     "残り通信量",        "次回リセット", "プラン期限",   "有効期限",
    "남은 트래픽", "다음 초기화",       "플랜 만료",    "만료",
};

// The first bytes of all listed names and prefixes: most node names start with a flag or a
// region and are decided by one lookup.
constexpr std::array<bool, 256> kFirstBytes = [] {
  std::array<bool, 256> bytes{};
  for (std::string_view name : kHiddenNames) bytes[static_cast<unsigned char>(name.front())] = true;
  for (std::string_view prefix : kHiddenPrefixes) {
    bytes[static_cast<unsigned char>(prefix.front())] = true;
  }
  return bytes;
}();

}  // namespace

bool isHiddenProxyChoice(std::string_view name) {
  const std::string_view trimmed = base::trimWhitespace(name);
  if (trimmed.empty() || !kFirstBytes[static_cast<unsigned char>(trimmed.front())]) return false;
  for (std::string_view hidden : kHiddenNames) {
    if (trimmed == hidden) return true;
  }
  for (std::string_view prefix : kHiddenPrefixes) {
    if (trimmed.starts_with(prefix)) return true;
  }
  return false;
}

std::vector<std::string> filteredProxyChoices(const std::vector<std::string>& names) {
  std::vector<std::string> visible;
  visible.reserve(names.size());
  std::copy_if(names.begin(), names.end(), std::back_inserter(visible),
               [](const std::string& name) { return !isHiddenProxyChoice(name); });
  return visible;
}

}  // namespace qev::config
