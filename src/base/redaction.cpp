#include "base/redaction.h"

#include <re2/re2.h>

#include <array>

#include "base/strings.h"
#include "base/utf8.h"
#include "qev/deployment.h"

namespace qev::base {
namespace {

constexpr std::array<std::string_view, 8> kSensitiveKeys = {
    "token",  "auth_data", "authorization", "subscribe_url",
    "secret", "cookie",    "set-cookie",    "proxy-authorization"};
// Any key that holds one of these is a password of some kind (old_password, passwd, pwd).
constexpr std::array<std::string_view, 3> kPasswordWords = {"password", "passwd", "pwd"};

// Deeper JSON than this is not walked: the rest of the branch becomes a placeholder, so hostile
// input cannot exhaust the stack here or in the serialisation that follows.
constexpr int kMaxDepth = 64;
constexpr std::string_view kTooDeep = "[too deep]";

bool isSensitiveKey(std::string_view key, bool includeEmail) {
  const std::string lower = base::toLowerAscii(base::trimWhitespace(key));
  for (auto k : kSensitiveKeys) {
    if (lower == k) return true;
  }
  for (auto word : kPasswordWords) {
    if (lower.find(word) != std::string::npos) return true;
  }
  // email_code, invite_code, sms_code: one-time codes are credentials too.
  if (lower.ends_with("_code")) return true;
  return includeEmail && lower == "email";
}

struct FreeTextPatterns {
  RE2 storage;
  RE2 token{R"(token=[^&#\s"']+)"};
  // secret=, password= and friends, also percent-encoded as in a form body inside a URL.
  RE2 credential{R"(((?i)[a-z_]*(?:secret|password|passwd|pwd|_code)[a-z_]*)(=|%3[Dd])[^&#\s"']+)"};
  // "key": "value" pairs of sensitive keys inside free text that is not JSON as a whole.
  RE2 jsonPair{
      R"re(((?i)"[^"]*(?:password|passwd|pwd|secret|token|auth_data|authorization|cookie|_code)"\s*:\s*)"(?:[^"\\]|\\.)*")re"};
  // "Bearer Bearer x" is one credential: the repeated word must not shield the value after it.
  RE2 bearer{R"((?i)(bearer)(?:\s+bearer\b)*\s+[A-Za-z0-9._~+/=-]+)"};
  RE2 userInfo{R"((//[^/\s:@"']+):[^/\s@"']+@)"};
  RE2 headerValue{R"((?i)((?:set-)?cookie|authorization)(["']?\s*[:=]\s*["']?)[^"'\r\n]+)"};
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

// Rebuilds `value` with `leaf` applied to every leaf and `mask(key)` deciding per object member
// whether its value is masked instead of walked; depth-limited.
template <class Leaf, class Mask>
Json mapJson(const Json& value, Leaf leaf, Mask mask, int depth = 0) {
  if (value.is_structured() && depth >= kMaxDepth) return Json(std::string(kTooDeep));
  if (value.is_object()) {
    Json out = Json::object();
    for (const auto& [key, child] : value.items()) {
      out[key] = mask(key) ? Json("***") : mapJson(child, leaf, mask, depth + 1);
    }
    return out;
  }
  if (value.is_array()) {
    Json out = Json::array();
    for (const auto& child : value) out.push_back(mapJson(child, leaf, mask, depth + 1));
    return out;
  }
  return leaf(value);
}

const auto kSameLeaf = [](const Json& leaf) { return leaf; };
const auto kNoMask = [](const std::string&) { return false; };

Json redactKeys(const Json& value, bool includeEmail) {
  return mapJson(value, kSameLeaf, [includeEmail](const std::string& key) {
    return isSensitiveKey(key, includeEmail);
  });
}

// "a=1&password=x" in any shape (raw spaces, trailing separators): pieces between "&" whose key
// is sensitive lose their value; everything else comes back as it was.
std::string redactFormBody(std::string_view text) {
  std::string out;
  std::size_t start = 0;
  bool first = true;
  while (start <= text.size()) {
    std::size_t end = text.find('&', start);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view pair = text.substr(start, end - start);
    const std::size_t eq = pair.find('=');
    if (!first) out.push_back('&');
    first = false;
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
    Json parsed = base::parseJson(trimmed);
    if (!parsed.is_discarded() && parsed.is_structured()) {
      return redactKeys(parsed, true).dump(-1, ' ', false, Json::error_handler_t::replace);
    }
  }
  if (text.find('=') != std::string::npos) return redactFormBody(text);
  return text;
}

}  // namespace

std::string redactURLString(std::string_view text) {
  const auto& p = patterns();
  std::string out(text);
  RE2::GlobalReplace(&out, p.storage, "[oss-url]");
  RE2::GlobalReplace(&out, p.token, "token=***");
  RE2::GlobalReplace(&out, p.credential, "\\1\\2***");
  RE2::GlobalReplace(&out, p.jsonPair, "\\1\"***\"");
  // Header values first: a credential word before "Authorization:" must not consume the name.
  RE2::GlobalReplace(&out, p.headerValue, "\\1\\2***");
  RE2::GlobalReplace(&out, p.bearer, "\\1 ***");
  RE2::GlobalReplace(&out, p.userInfo, "\\1:***@");
  RE2::GlobalReplace(&out, p.verify, "verify=***");
  RE2::GlobalReplace(&out, p.shortLink, "/s/***");
  return out;
}

Json redactJSON(const Json& value) {
  return redactKeys(value, false);
}

Json redactURLs(const Json& value) {
  return mapJson(
      value,
      [](const Json& leaf) {
        return leaf.is_string() ? Json(redactURLString(leaf.get_ref<const std::string&>())) : leaf;
      },
      kNoMask);
}

std::string redactFreeText(std::string_view text) {
  return redactURLString(redactEmbeddedString(std::string(text)));
}

std::string redactedJSONPreview(std::string_view text) {
  constexpr std::size_t kLimit = 1200;
  Json parsed = base::parseJson(text);
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
  return mapJson(
      value,
      [](const Json& leaf) {
        return leaf.is_string() ? Json(redactEmbeddedString(leaf.get_ref<const std::string&>()))
                                : leaf;
      },
      kNoMask);
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
