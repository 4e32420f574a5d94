#include "net/url.h"

#include <charconv>

#include "base/strings.h"

namespace qev::net {
namespace {

bool isAlpha(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isDigit(unsigned char c) {
  return c >= '0' && c <= '9';
}
bool isUnreserved(unsigned char c) {
  return isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_' || c == '~';
}
bool isSubDelim(unsigned char c) {
  return std::string_view("!$&'()*+,;=").find(static_cast<char>(c)) != std::string_view::npos;
}

int hexValue(unsigned char c) {
  if (isDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Blanks, controls and DEL never appear in a URL as written; everything else is left to the
// part that holds it (non-ASCII bytes pass, the transport encodes them where it must).
bool hasForbiddenByte(std::string_view text) {
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (c <= 0x20 || c == 0x7f) return true;
  }
  return false;
}

// Bytes that can never stand in a host name as written.
bool isValidRegName(std::string_view host) {
  for (const char ch : host) {
    const auto c = static_cast<unsigned char>(ch);
    if (c >= 0x80 || isUnreserved(c) || isSubDelim(c) || c == '%') continue;
    return false;
  }
  return true;
}

bool isValidIpv6Literal(std::string_view host) {
  if (host.empty()) return false;
  for (const char ch : host) {
    const auto c = static_cast<unsigned char>(ch);
    if (hexValue(c) < 0 && c != ':' && c != '.' && c != '%' && !isUnreserved(c)) return false;
  }
  return host.find(':') != std::string_view::npos;
}

bool schemeNeedsHost(std::string_view scheme) {
  return scheme == "http" || scheme == "https" || scheme == "ws" || scheme == "wss";
}

// Splits "path?query#fragment" into the three parts of `url`.
void splitPathQueryFragment(std::string_view rest, Url& url) {
  if (const auto hash = rest.find('#'); hash != std::string_view::npos) {
    url.fragment = std::string(rest.substr(hash + 1));
    rest = rest.substr(0, hash);
  }
  if (const auto question = rest.find('?'); question != std::string_view::npos) {
    url.query = std::string(rest.substr(question + 1));
    rest = rest.substr(0, question);
  }
  url.path = std::string(rest);
}

// Parses "[userinfo@]host[:port]" into `url`; false when it is malformed.
bool parseAuthority(std::string_view authority, Url& url) {
  if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
    authority = authority.substr(at + 1);
  }
  std::string_view host = authority;
  std::string_view port;
  if (authority.starts_with('[')) {
    const auto close = authority.find(']');
    if (close == std::string_view::npos) return false;
    host = authority.substr(1, close - 1);
    const auto after = authority.substr(close + 1);
    if (!after.empty()) {
      if (after.front() != ':') return false;
      port = after.substr(1);
    }
    if (!isValidIpv6Literal(host)) return false;
  } else {
    if (const auto colon = authority.rfind(':'); colon != std::string_view::npos) {
      host = authority.substr(0, colon);
      port = authority.substr(colon + 1);
    }
    if (!isValidRegName(host)) return false;
  }
  if (!port.empty()) {
    int value = 0;
    const auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), value);
    if (ec != std::errc() || end != port.data() + port.size() || value < 0 || value > 65535) {
      return false;
    }
    url.port = value;
  }
  url.host = base::toLowerAscii(host);
  return true;
}

}  // namespace

std::string Url::toString() const {
  std::string text = scheme + ":";
  if (hasAuthority) {
    text += "//";
    text += host.find(':') != std::string::npos ? "[" + host + "]" : host;
    if (port) text += ":" + std::to_string(*port);
  }
  text += path;
  if (query) text += "?" + *query;
  if (fragment) text += "#" + *fragment;
  return text;
}

std::optional<Url> parseUrl(std::string_view text) {
  if (text.empty() || hasForbiddenByte(text)) return std::nullopt;
  const auto colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0) return std::nullopt;
  const std::string_view scheme = text.substr(0, colon);
  if (!isAlpha(static_cast<unsigned char>(scheme.front()))) return std::nullopt;
  for (const char ch : scheme) {
    const auto c = static_cast<unsigned char>(ch);
    if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return std::nullopt;
  }

  Url url;
  url.scheme = base::toLowerAscii(scheme);
  std::string_view rest = text.substr(colon + 1);
  if (rest.starts_with("//")) {
    rest.remove_prefix(2);
    const auto end = rest.find_first_of("/?#");
    const std::string_view authority = rest.substr(0, end);
    if (!parseAuthority(authority, url)) return std::nullopt;
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end);
  } else {
    url.hasAuthority = false;
  }
  if (schemeNeedsHost(url.scheme) && url.host.empty()) return std::nullopt;
  splitPathQueryFragment(rest, url);
  return url;
}

std::string percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      const int high = hexValue(static_cast<unsigned char>(text[i + 1]));
      const int low = hexValue(static_cast<unsigned char>(text[i + 2]));
      if (high >= 0 && low >= 0) {
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
        continue;
      }
    }
    out.push_back(text[i]);
  }
  return out;
}

std::string percentEncodePath(std::string_view text, bool pathComponent) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    const bool allowed =
        isUnreserved(c) || c == ':' || (!pathComponent && (isSubDelim(c) || c == '@' || c == '/'));
    if (allowed) {
      out.push_back(ch);
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 0x0f]);
    }
  }
  return out;
}

}  // namespace qev::net
