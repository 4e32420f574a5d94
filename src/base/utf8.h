#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qev::base {

bool isValidUtf8(std::string_view bytes);

// The first `maxClusters` user-perceived characters (extended grapheme clusters) of UTF-8 text.
std::string truncateGraphemes(std::string_view text, std::size_t maxClusters);

// At most `maxBytes` bytes of valid UTF-8 `text`, cut before a code point that would not fit.
std::string_view truncateUtf8Bytes(std::string_view text, std::size_t maxBytes);

// The first `maxChars` characters, counted as UTF-16 code units the way the platform string
// type counts them (a character outside the BMP counts twice); never splits a code point.
std::string truncateUtf16(std::string_view text, std::size_t maxChars);

}  // namespace qev::base
