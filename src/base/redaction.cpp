#include "base/redaction.h"

#include <re2/re2.h>

#include <array>

#include "base/strings.h"
#include "base/utf8.h"
#include "qev/deployment.h"

namespace qev::base {
namespace {

constexpr std::array<std::string_view, 5> kSensitiveKeys = {"token", "auth_data", "authorization",
                                                            "subscribe_url", "password"};

bool isSensitiveKey(std::string_view key, bool includeEmail) {
  const std::string lower = base::toLowerAscii(key);
  for (auto k : kSensitiveKeys) {
    if (lower == k) return true;
  }
  return includeEmail && lower == "email";
}

struct FreeTextPatterns {
  RE2 storage;
  RE2 token{R"(token=[^&#\s]+)"};
  RE2 verify{R"(verify=[^&#\s]+)"};
  RE2 shortLink{R"(/s/[A-Za-z0-9._~-]+)"};

  FreeTextPatterns()
      : storage("(?:https?:)?//[^\\s\"']*?(?:oss|" +
                RE2::QuoteMeta(std::string(deployment::kOssHostLabel)) + ")[^\\s\"']*") {}
};

const FreeTextPatterns& patterns() {
  static const FreeTextPatterns compiled;  // immutable after first use
  return compiled;
}

Json redactKeys(const Json& value, bool includeEmail) {
  if (value.is_object()) {
    Json out = Json::object();
    for (const auto& [key, child] : value.items()) {
      out[key] = isSensitiveKey(key, includeEmail) ? Json("***") : redactKeys(child, includeEmail);
    }
    return out;
  }
  if (value.is_array()) {
    Json out = Json::array();
    for (const auto& child : value) out.push_back(redactKeys(child, includeEmail));
    return out;
  }
  return value;
}

// "a=1&password=x" style: every piece is key=value with a plain key.
bool looksFormEncoded(std::string_view text) {
  static const RE2 form(R"([A-Za-z0-9_.\-\[\]%]+=[^&\s]*(?:&[A-Za-z0-9_.\-\[\]%]+=[^&\s]*)*)");
  return text.find('=') != std::string_view::npos && RE2::FullMatch(text, form);
}

std::string redactFormBody(std::string_view text) {
  std::string out;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find('&', start);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view pair = text.substr(start, end - start);
    const std::size_t eq = pair.find('=');
    if (!out.empty()) out.push_back('&');
    if (eq != std::string_view::npos && isSensitiveKey(pair.substr(0, eq), true)) {
      out.append(pair.substr(0, eq)).append("=***");
    } else {
      out.append(pair);
    }
    start = end + 1;
  }
  return out;
}

std::string redactEmbeddedString(const std::string& text) {
  const std::string_view trimmed = base::trimWhitespace(text);
  if (!trimmed.empty() && (trimmed.front() == '{' || trimmed.front() == '[')) {
    Json parsed = Json::parse(trimmed, nullptr, false);
    if (!parsed.is_discarded() && parsed.is_structured()) {
      return redactKeys(parsed, true).dump(-1, ' ', false, Json::error_handler_t::replace);
    }
  }
  if (looksFormEncoded(text)) return redactFormBody(text);
  return text;
}

}  // namespace

std::string redactURLString(std::string_view text) {
  const auto& p = patterns();
  std::string out(text);
  RE2::GlobalReplace(&out, p.storage, "[oss-url]");
  RE2::GlobalReplace(&out, p.token, "token=***");
  RE2::GlobalReplace(&out, p.verify, "verify=***");
  RE2::GlobalReplace(&out, p.shortLink, "/s/***");
  return out;
}

Json redactJSON(const Json& value) {
  return redactKeys(value, false);
}

Json redactURLs(const Json& value) {
  if (value.is_string()) return redactURLString(value.get_ref<const std::string&>());
  if (value.is_object()) {
    Json out = Json::object();
    for (const auto& [key, child] : value.items()) out[key] = redactURLs(child);
    return out;
  }
  if (value.is_array()) {
    Json out = Json::array();
    for (const auto& child : value) out.push_back(redactURLs(child));
    return out;
  }
  return value;
}

std::string redactedJSONPreview(std::string_view text) {
  constexpr std::size_t kLimit = 1200;
  Json parsed = Json::parse(text, nullptr, false);
  if (!parsed.is_discarded() && parsed.is_structured()) {
    try {
      return base::truncateGraphemes(redactJSON(parsed).dump(), kLimit);
    } catch (const Json::exception&) {
      // not serialisable (invalid UTF-8): fall through to the raw preview
    }
  }
  return base::truncateGraphemes(text, kLimit);
}

Json redactEmbeddedBodies(const Json& value) {
  if (value.is_string()) return redactEmbeddedString(value.get_ref<const std::string&>());
  if (value.is_object()) {
    Json out = Json::object();
    for (const auto& [key, child] : value.items()) out[key] = redactEmbeddedBodies(child);
    return out;
  }
  if (value.is_array()) {
    Json out = Json::array();
    for (const auto& child : value) out.push_back(redactEmbeddedBodies(child));
    return out;
  }
  return value;
}

std::string bridgeArgsPreview(const Json& args) {
  constexpr std::size_t kLimit = 500;
  if (args.is_array() && args.empty()) return "";
  const Json redacted = redactURLs(redactEmbeddedBodies(redactJSON(args)));
  return base::truncateGraphemes(describeValue(redacted), kLimit);
}

std::string describeValue(const Json& value) {
  if (value.is_string()) return value.get<std::string>();
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace qev::base
