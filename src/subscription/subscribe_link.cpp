#include "subscription/subscribe_link.h"

#include "base/strings.h"
#include "net/url.h"

namespace qev::subscription {
namespace {

// The share code of a short link, or "" when the link is not one.
std::string shortLinkToken(std::string_view link) {
  const auto url = net::parseUrl(link);
  if (!url) return {};
  const std::string path = net::percentDecode(url->path);
  if (path.rfind("/s/", 0) != 0) return {};
  std::string_view rest = std::string_view(path).substr(3);
  while (!rest.empty() && rest.front() == '/') rest.remove_prefix(1);
  return std::string(rest.substr(0, rest.find('/')));
}

}  // namespace

std::string rewriteSubscribeUrl(std::string_view link, std::string_view fallbackApiBase) {
  std::string working(link);
  if (const std::string token = shortLinkToken(link); !token.empty()) {
    working = std::string(fallbackApiBase) + "/api/v1/client/subscribe?token=" + token;
  }
  working = base::replaceAll(working, "/client/app/getConfig", "/client/subscribe");
  working = base::replaceAll(working, "/client/getConfig", "/client/subscribe");
  if (working.find("/client/subscribe") != std::string::npos &&
      base::toLowerAscii(working).find("flag=clash.meta") == std::string::npos) {
    working += working.find('?') != std::string::npos ? "&flag=clash.meta" : "?flag=clash.meta";
  }
  return working;
}

}  // namespace qev::subscription
