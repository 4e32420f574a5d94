#include "base/strings.h"

#include <algorithm>
#include <ctime>

namespace qev::base {
namespace {

bool isBlank(char c) {
  return c == ' ' || c == '\t';
}

// Length of the white-space or newline character that starts at text[i], or 0.
std::size_t whitespaceLengthAt(std::string_view text, std::size_t i) {
  const auto c = static_cast<unsigned char>(text[i]);
  if (c == ' ' || (c >= 0x09 && c <= 0x0D)) return 1;
  const auto at = [&](std::size_t k) {
    return i + k < text.size() ? static_cast<unsigned char>(text[i + k]) : 0u;
  };
  if (c == 0xC2 && (at(1) == 0x85 || at(1) == 0xA0)) return 2;
  if (c == 0xE1 && at(1) == 0x9A && at(2) == 0x80) return 3;  // U+1680
  if (c == 0xE2 && at(1) == 0x80) {                           // U+2000-200A, U+2028, U+2029, U+202F
    const auto d = at(2);
    if ((d >= 0x80 && d <= 0x8A) || d == 0xA8 || d == 0xA9 || d == 0xAF) return 3;
  }
  if (c == 0xE2 && at(1) == 0x81 && at(2) == 0x9F) return 3;  // U+205F
  if (c == 0xE3 && at(1) == 0x80 && at(2) == 0x80) return 3;  // U+3000
  return 0;
}

// Length of the white-space character that ends at text[end-1], or 0.
std::size_t whitespaceLengthBefore(std::string_view text, std::size_t end) {
  for (std::size_t n = 1; n <= 3 && n <= end; ++n) {
    if (whitespaceLengthAt(text, end - n) == n) return n;
  }
  return 0;
}

}  // namespace

std::string_view trimBlanks(std::string_view text) {
  std::size_t b = 0;
  std::size_t e = text.size();
  while (b < e && isBlank(text[b])) ++b;
  while (e > b && isBlank(text[e - 1])) --e;
  return text.substr(b, e - b);
}

std::string_view trimWhitespace(std::string_view text) {
  std::size_t b = 0;
  std::size_t e = text.size();
  while (b < e) {
    const std::size_t n = whitespaceLengthAt(text, b);
    if (n == 0) break;
    b += n;
  }
  while (e > b) {
    const std::size_t n = whitespaceLengthBefore(text, e);
    if (n == 0 || e - n < b) break;
    e -= n;
  }
  return text.substr(b, e - b);
}

std::size_t newlineLengthAt(std::string_view text, std::size_t i) {
  const auto c = static_cast<unsigned char>(text[i]);
  if (c >= 0x0A && c <= 0x0D) return 1;
  if (c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) == 0x85) return 2;
  if (c == 0xE2 && i + 2 < text.size() && static_cast<unsigned char>(text[i + 1]) == 0x80) {
    const auto d = static_cast<unsigned char>(text[i + 2]);
    if (d == 0xA8 || d == 0xA9) return 3;
  }
  return 0;
}

std::vector<std::string_view> splitLines(std::string_view text) {
  std::vector<std::string_view> lines;
  forEachLine(text, [&](std::string_view line) { lines.push_back(line); });
  return lines;
}

std::string toLowerAscii(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; });
  return out;
}

std::string replaceAll(std::string_view text, std::string_view from, std::string_view to) {
  std::string out;
  out.reserve(text.size());
  std::size_t pos = 0;
  while (true) {
    const std::size_t hit = from.empty() ? std::string_view::npos : text.find(from, pos);
    if (hit == std::string_view::npos) break;
    out.append(text.substr(pos, hit - pos)).append(to);
    pos = hit + from.size();
  }
  out.append(text.substr(pos));
  return out;
}

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
  std::string out;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i) out.append(separator);
    out.append(parts[i]);
  }
  return out;
}

std::string iso8601UtcStamp(std::chrono::system_clock::time_point when) {
  const std::time_t t = std::chrono::system_clock::to_time_t(when);
  std::tm utc{};
  gmtime_r(&t, &utc);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return buf;
}

}  // namespace qev::base
