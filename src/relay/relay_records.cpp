#include "relay/relay_records.h"

#include <algorithm>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/strings.h"
#include "net/url.h"

namespace qev::relay {
namespace {

constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";

// RFC 9110 token characters: what a method or a header name may consist of.
bool isToken(std::string_view text) {
  if (text.empty()) return false;
  for (const char c : text) {
    const bool alnum = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!alnum && std::string_view("!#$%&'*+-.^_`|~").find(c) == std::string_view::npos) {
      return false;
    }
  }
  return true;
}

bool splitsRequest(std::string_view value) {
  return value.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

// The methods a browser normalises to upper case; any other token is sent as
// written.
std::string normalizedMethod(std::string_view method) {
  const auto upper = [&] {
    std::string out(method);
    for (char& c : out) {
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return out;
  }();
  for (const std::string_view known :
       {"DELETE", "GET", "HEAD", "OPTIONS", "POST", "PUT", "PATCH"}) {
    if (upper == known) return upper;
  }
  return std::string(method);
}

std::optional<std::string> headerValueText(const Json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_number() || value.is_boolean()) return value.dump();
  return std::nullopt;
}

// Length of the well-formed UTF-8 sequence at text[i], or 0.
std::size_t utf8SequenceAt(std::string_view text, std::size_t i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = byte(i);
  if (lead < 0x80) return 1;
  std::size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;   // no overlong forms
    if (lead == 0xED) high = 0x9F;  // no surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;  // nothing above U+10FFFF
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  if (byte(i + 1) < low || byte(i + 1) > high) return 0;
  for (std::size_t k = 2; k < length; ++k) {
    if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) return 0;
  }
  return length;
}

}  // namespace

Result<net::HttpRequest> requestFromRecord(const Json* record) {
  if (!record || !record->is_object()) return BridgeError::invalidRequest();
  net::HttpRequest request;
  request.timeout = kRelayTimeout;

  const auto url = record->find("url");
  if (url == record->end() || !url->is_string()) return BridgeError::invalidRequest();
  const auto parsed = net::parseUrl(url->get<std::string>());
  if (!parsed || (parsed->scheme != "http" && parsed->scheme != "https") || parsed->host.empty()) {
    return BridgeError::invalidRequest();
  }
  request.url = url->get<std::string>();

  if (const auto method = record->find("method"); method != record->end() && !method->is_null()) {
    if (!method->is_string()) return BridgeError::invalidRequest();
    const auto text = method->get<std::string>();
    if (!text.empty()) {
      if (!isToken(text)) return BridgeError::invalidRequest();
      request.method = normalizedMethod(text);
    }
  }

  if (const auto headers = record->find("headers");
      headers != record->end() && !headers->is_null()) {
    if (!headers->is_object()) return BridgeError::invalidRequest();
    for (const auto& [name, value] : headers->items()) {
      const auto text = headerValueText(value);
      if (!text)
        continue;  // a header without a usable value is left out, as a browser
                   // would
      if (!isToken(name) || splitsRequest(*text)) return BridgeError::invalidRequest();
      request.headers.emplace_back(name, *text);
    }
  }

  if (const auto body = record->find("body"); body != record->end() && !body->is_null()) {
    if (!body->is_string()) return BridgeError::invalidRequest();
    request.body = body->get<std::string>();
  }
  return request;
}

Json replyHeaders(const net::HeaderList& headers) {
  // Values are joined in place and names found by hash, so many repeats stay linear.
  // Names are text too: a server may send any bytes, and the page receives only UTF-8.
  std::vector<std::pair<std::string, std::string>> joined;  // first spelling, value
  std::unordered_map<std::string, std::size_t> indexByLowerName;
  for (const auto& [name, value] : headers) {
    const auto [it, added] = indexByLowerName.try_emplace(base::toLowerAscii(name), joined.size());
    if (added) {
      joined.emplace_back(utf8Text(name), utf8Text(value));
    } else {
      auto& text = joined[it->second].second;
      text += ", ";
      text += utf8Text(value);
    }
  }
  Json out = Json::object();
  for (auto& [name, value] : joined) out[name] = std::move(value);
  return out;
}

std::string utf8Text(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  for (std::size_t i = 0; i < bytes.size();) {
    const std::size_t n = utf8SequenceAt(bytes, i);
    if (n == 0) {
      out.append(kReplacementCharacter);
      ++i;
    } else {
      out.append(bytes.substr(i, n));
      i += n;
    }
  }
  return out;
}

}  // namespace qev::relay
