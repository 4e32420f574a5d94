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
  std::string path;  // "" or beginning with "/"; for URLs without "//" (mailto:) the rest
  std::optional<std::string> query;
  std::optional<std::string> fragment;
  bool hasAuthority = true;  // false for URLs such as "mailto:a@b" that have no "//" part

  std::string toString() const;
};

// Nothing when the text is not an absolute URL with a scheme (and, for http/https, a host), or
// holds blanks or control characters. Nothing is normalised: dot segments and escapes stay.
std::optional<Url> parseUrl(std::string_view text);

// The path with %XX sequences decoded.
std::string percentDecode(std::string_view text);

// Percent-encodes every byte outside the unreserved set and the path-safe sub-delimiters;
// with `pathComponent` the reserved characters /?#[]@!$&'()*+,;= are encoded as well.
std::string percentEncodePath(std::string_view text, bool pathComponent);

}  // namespace qev::net
