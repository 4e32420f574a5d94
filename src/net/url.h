#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qev::net {

// The parts of an absolute URL, as written (path, query and fragment stay percent-encoded).
struct Url {
  std::string scheme;  // lower-cased
  std::string host;    // lower-cased; IPv6 without brackets
  std::optional<int> port;
  std::string path;  // "" or beginning with "/"
  std::optional<std::string> query;
  std::optional<std::string> fragment;

  std::string toString() const;
};

// Nothing when the text is not an absolute URL with a scheme (and, for http/https, a host).
std::optional<Url> parseUrl(std::string_view text);

// The path with %XX sequences decoded.
std::string percentDecode(std::string_view text);

// Percent-encodes every byte outside the unreserved set and the path-safe sub-delimiters;
// with `pathComponent` the reserved characters /?#[]@!$&'()*+,;= are encoded as well.
std::string percentEncodePath(std::string_view text, bool pathComponent);

}  // namespace qev::net
