#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace qev {

// Object keys iterate in sorted order, which is also how the proxy core emits its tables.
using Json = nlohmann::json;

namespace base {

// Deeper nesting than any real message, reply or file has. Copying, printing and walking a
// value recurse once per level, so text nested deeper is refused before it becomes a value.
inline constexpr std::size_t kMaxJsonDepth = 256;

// Whether the arrays and objects of a JSON text nest at most `limit` deep (strings, with their
// escapes, are skipped). Linear and without recursion, whatever the text.
bool jsonNestingWithin(std::string_view text, std::size_t limit = kMaxJsonDepth);

// Parses outside input: a discarded value when the text is not JSON or nests too deep.
Json parseJson(std::string_view text);

// The first element of a command's argument array, or nullptr.
const Json* firstArg(const Json& args);

// The string under `key` of an object from outside; empty when it is missing or not a string.
std::string stringField(const Json& object, const char* key);

}  // namespace base
}  // namespace qev
