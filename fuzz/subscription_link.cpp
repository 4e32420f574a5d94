// URLs as the native side reads them, and the rewrite of a subscription link: a parsed URL
// prints back to what was read, and a rewritten link always asks for the core's format.

#include "base/strings.h"
#include "fuzz_check.h"
#include "net/url.h"
#include "subscription/subscribe_link.h"

namespace {

std::size_t count(std::string_view text, std::string_view piece) {
  std::size_t n = 0;
  for (auto at = text.find(piece); at != std::string_view::npos; at = text.find(piece, at + 1)) ++n;
  return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qev;
  const std::string_view text = fuzz::textOf(data, size);
  if (const auto url = net::parseUrl(text)) {
    const auto again = net::parseUrl(url->toString());
    FUZZ_CHECK(again.has_value());
    FUZZ_CHECK(again->toString() == url->toString());
    if (url->port) FUZZ_CHECK(*url->port >= 0 && *url->port <= 65535);
  }
  FUZZ_CHECK(net::percentDecode(net::percentEncodePath(text, true)) == text);

  const std::string link = subscription::rewriteSubscribeUrl(text, "https://panel.example/api/v1");
  if (link.find("/client/subscribe") != std::string::npos) {
    FUZZ_CHECK(count(base::toLowerAscii(link), "flag=clash.meta") >= 1);
  }
  return 0;
}
