#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace fake_panel {

// A body as the panel's framework encodes it by default: non-ASCII as \uXXXX and "/" as "\/".
std::string phpJson(const nlohmann::ordered_json& value);

// PHP's rawurlencode: everything but A-Z a-z 0-9 - _ . ~ percent-encoded.
std::string rawUrlEncode(const std::string& text);

// Standard Base64 with padding.
std::string base64(const std::string& bytes);

}  // namespace fake_panel
