#pragma once

#include <string>
#include <string_view>

#include "base/json.h"

namespace qev::base {

// Masks object-storage addresses, token=/verify=/secret=/password= values (also percent-
// encoded), Bearer credentials, user:password@ in URLs, Cookie and Authorization header values
// and short-link codes in free text.
std::string redactURLString(std::string_view text);

// Replaces the values of sensitive keys by "***" at any depth (compared lower-cased: token,
// auth_data, authorization, subscribe_url, secret, cookie, any key holding "password", "passwd"
// or "pwd", and keys ending in "_code"). Strings are not scanned. Branches deeper than 64
// levels become a placeholder.
Json redactJSON(const Json& value);

// Applies redactURLString to every string leaf.
Json redactURLs(const Json& value);

// A redacted, sorted-key, compact preview of a JSON text, at most 1200 characters; the text's
// own first 1200 characters when it is not JSON.
std::string redactedJSONPreview(std::string_view text);

// Free text as the log keeps it: a JSON text or form body inside it loses its sensitive values
// (e-mail addresses included), then redactURLString.
std::string redactFreeText(std::string_view text);

// String leaves that carry a request body of their own (a JSON text, or a form-encoded body
// such as "email=a&password=b") get their sensitive values masked, e-mail addresses included,
// since the page sends its login request through the relay with the body as a string.
Json redactEmbeddedBodies(const Json& value);

// The log preview of a command's argument array: redacted, compact, at most 500 characters.
std::string bridgeArgsPreview(const Json& args);

// The text a log entry shows for a value that is not a message string.
std::string describeValue(const Json& value);

}  // namespace qev::base
