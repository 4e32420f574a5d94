// What the relay reads from the page and from the panel: a request record becomes a request
// that cannot split on the wire, response headers become page-safe JSON, and a login reply is
// adapted to one shape or left alone.

#include <fuzzer/FuzzedDataProvider.h>

#include "base/json.h"
#include "base/utf8.h"
#include "fuzz_check.h"
#include "net/url.h"
#include "relay/login_compat.h"
#include "relay/relay_records.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qev;
  FuzzedDataProvider input(data, size);
  const std::string text = input.ConsumeRemainingBytesAsString();

  const Json record = base::parseJson(text);
  if (!record.is_discarded()) {
    if (const auto request = relay::requestFromRecord(&record); request.ok()) {
      const auto& value = request.value();
      const auto url = net::parseUrl(value.url);
      FUZZ_CHECK(url && (url->scheme == "http" || url->scheme == "https") && !url->host.empty());
      for (const auto& [name, headerValue] : value.headers) {
        FUZZ_CHECK(!name.empty() && name.find_first_of(":\r\n ") == std::string::npos);
        FUZZ_CHECK(headerValue.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos);
      }
      FUZZ_CHECK(value.method.find_first_of(" \r\n") == std::string::npos);
    }
  }

  // The same bytes as header lines "name: value" of a reply.
  net::HeaderList headers;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    const std::string_view line = std::string_view(text).substr(start, end - start);
    const std::size_t colon = line.find(':');
    headers.emplace_back(line.substr(0, colon),
                         colon == std::string_view::npos ? "" : line.substr(colon + 1));
    start = end + 1;
  }
  const Json forPage = relay::replyHeaders(headers);
  FUZZ_CHECK(forPage.is_object());
  forPage.dump();  // throws, and so fails, on any text the page could not receive
  FUZZ_CHECK(base::isValidUtf8(relay::utf8Text(text)));

  const std::string login = relay::xboardLoginCompatBody(text);
  if (login != text) {
    const Json adapted = base::parseJson(login);
    FUZZ_CHECK(adapted.is_object() && adapted["success"] == true);
    FUZZ_CHECK(adapted["data"]["token"].is_string() && !adapted["data"]["token"].empty());
  }
  return 0;
}
