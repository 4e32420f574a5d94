#pragma once

#include <string>
#include <string_view>

#include "base/json.h"

namespace qev::base {

// Masks object-storage addresses, token=/verify= values and short-link codes in free text.
std::string redactURLString(std::string_view text);

// Replaces the values of sensitive keys (token, auth_data, authorization, subscribe_url,
// password; compared lower-cased) by "***", at any depth. Strings are not scanned.
Json redactJSON(const Json& value);

// Applies redactURLString to every string leaf.
Json redactURLs(const Json& value);

// A redacted, sorted-key, compact preview of a JSON text, at most 1200 characters; the text's
// own first 1200 characters when it is not JSON.
std::string redactedJSONPreview(std::string_view text);

// String leaves that carry a request body of their own (a JSON text, or a form-encoded body
// such as "email=a&password=b") get their sensitive values masked, e-mail addresses included,
// since the page sends its login request through the relay with the body as a string.
Json redactEmbeddedBodies(const Json& value);

// The log preview of a command's argument array: redacted, compact, at most 500 characters.
std::string bridgeArgsPreview(const Json& args);

// The text a log entry shows for a value that is not a message string.
std::string describeValue(const Json& value);

}  // namespace qev::base
