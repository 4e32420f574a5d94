#pragma once

#include <string>
#include <string_view>

#include "net/url.h"

namespace qev::relay {

// "127.0.0.1" or "localhost": where the page reaches the core's controller.
bool isLoopbackHost(std::string_view host);

// The frontend names the product's selector group "SELECT"; on the core it is "QEV加速". A
// loopback URL whose path is exactly "/proxies/SELECT" gets the real group, percent-encoded;
// every other URL (sub-paths such as "/proxies/SELECT/delay" included) comes back unchanged.
std::string rewriteLocalControllerURL(std::string_view url);

// Requests for the remote frontend configuration on the object-storage host: their failure is
// answered with a 503 so the frontend falls back to its built-in configuration.
bool isOSSConfigRequest(std::string_view url);

// The frontend's usage report to the panel, answered locally. The page reaches it as
// "/api/v1/guest/report/fake" below the API base; an API base that already ends in "/api"
// makes it "/v1/guest/report/fake". Both count, also below a base with a path prefix.
bool isUsageReportRequest(const net::Url& url, const net::Url& apiBase);

// The URL with the bytes that may not appear in a request line (non-ASCII, blanks, controls,
// quotes, angle brackets, ...) percent-encoded after the authority; existing %XX escapes and
// the host stay as they are. The page may hand over "/proxies/QEV加速" unencoded.
std::string transportSafeURL(std::string_view url);

}  // namespace qev::relay
