#include "relay/external_links.h"

#include <utility>

#include "base/redaction.h"
#include "base/strings.h"
#include "net/url.h"

namespace qev::relay {

Result<std::string> externalLinkFromText(const Json* value) {
  if (!value || !value->is_string()) return BridgeError::native(20, "missing external URL");
  std::string link(base::trimWhitespace(value->get_ref<const std::string&>()));
  if (link.empty()) return BridgeError::native(20, "missing external URL");
  if (link.starts_with("//")) link.insert(0, "https:");
  const auto url = net::parseUrl(link);
  if (!url || (url->scheme != "http" && url->scheme != "https" && url->scheme != "mailto")) {
    return BridgeError::native(21, "invalid external URL");
  }
  return link;
}

bool shouldOpenExternally(std::string_view url) {
  const Json text = std::string(url);
  return externalLinkFromText(&text).ok();
}

ExternalLinks::ExternalLinks(const base::Logger& log, std::shared_ptr<base::MainQueue> mainQueue,
                             Open open)
    : log_(log), mainQueue_(std::move(mainQueue)), open_(std::move(open)) {}

void ExternalLinks::openExternal(const Json& args, std::function<void(Json)> resolve,
                                 std::function<void(BridgeError)> reject) {
  auto link = externalLinkFromText(base::firstArg(args));
  if (!link) {
    reject(link.error());
    return;
  }
  mainQueue_->post([this, link = std::move(link).value(), resolve = std::move(resolve)] {
    log_.message("native.openExternal: " + base::redactURLString(link));
    if (open_) {
      open_(link);
    } else {
      log_.message("native.openExternal.unavailable: no handler");
    }
    resolve(true);
  });
}

}  // namespace qev::relay
