#pragma once

#include <string>
#include <string_view>

#include "base/json.h"

namespace qev::bridge {

// A double-quoted JavaScript string literal whose value is `text` (UTF-8). Invalid bytes
// become U+FFFD so the literal always parses.
std::string jsStringLiteral(std::string_view text);

// A JavaScript expression (JSON syntax) for `value`; "null" for anything that is not valid
// JSON, such as a string holding invalid UTF-8 or a non-finite number.
std::string jsonLiteral(const Json& value);

}  // namespace qev::bridge
