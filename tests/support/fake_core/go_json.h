#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace fake_core {

// A reply body as the core's encoder writes it: compact, "<", ">", "&", U+2028 and U+2029
// escaped, and a final newline.
template <class Json>
std::string goJson(const Json& value) {
  const std::string compact = value.dump(-1, ' ', false, Json::error_handler_t::replace);
  std::string out;
  out.reserve(compact.size() + 8);
  for (std::size_t i = 0; i < compact.size(); ++i) {
    const char c = compact[i];
    if (c == '<') {
      out += "\\u003c";
    } else if (c == '>') {
      out += "\\u003e";
    } else if (c == '&') {
      out += "\\u0026";
    } else if (c == '\xe2' && i + 2 < compact.size() && compact[i + 1] == '\x80' &&
               (compact[i + 2] == '\xa8' || compact[i + 2] == '\xa9')) {
      out += compact[i + 2] == '\xa8' ? "\\u2028" : "\\u2029";
      i += 2;
    } else {
      out.push_back(c);
    }
  }
  out.push_back('\n');
  return out;
}

// Reads a request body the way the core's decoder does: the first JSON value of the stream,
// anything after it ignored. None for an empty or malformed body.
std::optional<nlohmann::json> decodeFirstJsonValue(std::string_view body);

// The member a Go struct field named `key` would take from `object`: the exact key, else one
// that matches ignoring ASCII case. Null pointer when absent.
const nlohmann::json* goField(const nlohmann::json& object, std::string_view key);

}  // namespace fake_core
