#include "config/subscription_check.h"

#include "base/strings.h"
#include "base/utf8.h"
#include "config/line_stages.h"

namespace qev::config {

std::string_view withoutByteOrderMark(std::string_view text) {
  constexpr std::string_view kMark = "\xEF\xBB\xBF";
  return text.starts_with(kMark) ? text.substr(kMark.size()) : text;
}

std::optional<std::string_view> unusableSubscriptionReason(std::string_view text) {
  if (!base::isValidUtf8(text)) return "not UTF-8 text";
  if (base::trimWhitespace(text).empty()) return "empty";
  bool inProxies = false;
  bool hasProxy = false;
  bool hasProviders = false;
  base::forEachLine(text, [&](std::string_view line) {
    const std::string_view trimmed = base::trimBlanks(line);
    if (trimmed.empty() || trimmed.starts_with('#')) return;
    // A list item at column 0 still belongs to the section above it.
    if (detail::isTopLevelLine(line) && !line.starts_with('-')) {
      const std::size_t colon = line.find(':');
      const std::string_view key = base::trimBlanks(line.substr(0, colon));
      inProxies = colon != std::string_view::npos && key == "proxies";
      hasProviders = hasProviders || (colon != std::string_view::npos && key == "proxy-providers");
      if (inProxies) {
        const std::string_view value = base::trimBlanks(line.substr(colon + 1));
        hasProxy = hasProxy || (value.starts_with('[') && base::trimBlanks(value.substr(1)) != "]");
      }
      return;
    }
    hasProxy = hasProxy || (inProxies && trimmed.starts_with('-'));
  });
  if (hasProxy || hasProviders) return std::nullopt;
  return "no proxies";
}

}  // namespace qev::config
