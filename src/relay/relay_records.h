#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "base/error.h"
#include "base/json.h"
#include "net/http_session.h"

namespace qev::relay {

inline constexpr std::chrono::milliseconds kRelayTimeout{60000};

// The page's request record ({method, url, headers, body}) as a request, or code 3 "invalid
// request". The method defaults to "GET"; only http and https URLs are relayed; a header name or
// value that would split the request (CR, LF, NUL, a bad name) makes the record invalid.
Result<net::HttpRequest> requestFromRecord(const Json* record);

// Response headers as the page sees them: one entry per name (first spelling kept), repeated
// names joined with ", " in arrival order.
Json replyHeaders(const net::HeaderList& headers);

// The body as text; byte sequences that are not UTF-8 become U+FFFD.
std::string utf8Text(std::string_view bytes);

}  // namespace qev::relay
