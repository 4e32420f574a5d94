#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace qev::base {

// Trims blanks and tabs only ("trimmed" in the line-based configuration rewriting).
std::string_view trimBlanks(std::string_view text);

// Trims Unicode white space and newlines (U+0009-U+000D, U+0020, U+0085, U+00A0, U+1680,
// U+2000-U+200A, U+2028, U+2029, U+202F, U+205F, U+3000) from both ends of UTF-8 text.
std::string_view trimWhitespace(std::string_view text);

// Length in bytes of the newline character starting at text[i], or 0. The newline set is
// LF, VT, FF, CR, U+0085, U+2028 and U+2029; CR LF counts as two separate newlines.
std::size_t newlineLengthAt(std::string_view text, std::size_t i);

// Splits at every newline character (see newlineLengthAt); CR LF yields an empty piece
// between CR and LF. The views point into `text`.
std::vector<std::string_view> splitLines(std::string_view text);

// Calls fn(line) for every piece splitLines would return, without allocating.
template <class Fn>
void forEachLine(std::string_view text, Fn&& fn) {
  std::size_t start = 0;
  for (std::size_t i = 0; i < text.size();) {
    // Only LF..CR and the lead bytes 0xC2 and 0xE2 can start a newline; skip the rest inline.
    const auto c = static_cast<unsigned char>(text[i]);
    if ((c < 0x0A || c > 0x0D) && c != 0xC2 && c != 0xE2) {
      ++i;
      continue;
    }
    const std::size_t n = newlineLengthAt(text, i);
    if (n == 0) {
      ++i;
      continue;
    }
    fn(text.substr(start, i - start));
    i += n;
    start = i;
  }
  fn(text.substr(start));
}

std::string toLowerAscii(std::string_view text);

// Replaces every occurrence of `from` (non-empty) by `to`, left to right, without rescanning.
std::string replaceAll(std::string_view text, std::string_view from, std::string_view to);

std::string join(const std::vector<std::string>& parts, std::string_view separator);

// "true" or "false", as log lines spell flags.
inline std::string boolText(bool value) {
  return value ? "true" : "false";
}

// "2026-11-15T18:30:00Z": UTC, whole seconds.
std::string iso8601UtcStamp(std::chrono::system_clock::time_point when);

}  // namespace qev::base
