#include "base/utf8.h"

#include <unicode/ubrk.h>
#include <unicode/utext.h>

#include <memory>

namespace qev::base {
namespace {

// Decodes one code point at text[i]; returns its byte length, or 0 when the bytes are invalid.
std::size_t decodeAt(std::string_view text, std::size_t i, char32_t& cp) {
  const auto b0 = static_cast<unsigned char>(text[i]);
  std::size_t len = 0;
  char32_t min = 0;
  if (b0 < 0x80) {
    cp = b0;
    return 1;
  } else if ((b0 & 0xE0) == 0xC0) {
    len = 2, cp = b0 & 0x1F, min = 0x80;
  } else if ((b0 & 0xF0) == 0xE0) {
    len = 3, cp = b0 & 0x0F, min = 0x800;
  } else if ((b0 & 0xF8) == 0xF0) {
    len = 4, cp = b0 & 0x07, min = 0x10000;
  } else {
    return 0;
  }
  if (i + len > text.size()) return 0;
  for (std::size_t k = 1; k < len; ++k) {
    const auto b = static_cast<unsigned char>(text[i + k]);
    if ((b & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (b & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return len;
}

}  // namespace

bool isValidUtf8(std::string_view bytes) {
  char32_t cp = 0;
  for (std::size_t i = 0; i < bytes.size();) {
    const std::size_t n = decodeAt(bytes, i, cp);
    if (n == 0) return false;
    i += n;
  }
  return true;
}

std::string truncateGraphemes(std::string_view text, std::size_t maxClusters) {
  if (text.size() <= maxClusters) return std::string(text);  // never more clusters than bytes
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<UText, decltype(&utext_close)> ut(
      utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status),
      &utext_close);
  if (U_FAILURE(status)) return truncateUtf16(text, maxClusters);
  std::unique_ptr<UBreakIterator, decltype(&ubrk_close)> it(
      ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status), &ubrk_close);
  if (U_FAILURE(status)) return truncateUtf16(text, maxClusters);
  ubrk_setUText(it.get(), ut.get(), &status);
  if (U_FAILURE(status)) return truncateUtf16(text, maxClusters);
  int32_t end = ubrk_first(it.get());
  for (std::size_t n = 0; n < maxClusters; ++n) {
    const int32_t next = ubrk_next(it.get());
    if (next == UBRK_DONE) return std::string(text);
    end = next;
  }
  // With a UTF-8 UText, break offsets are byte offsets into the original text.
  return std::string(text.substr(0, static_cast<std::size_t>(end)));
}

std::string truncateUtf16(std::string_view text, std::size_t maxChars) {
  std::size_t units = 0;
  char32_t cp = 0;
  std::size_t i = 0;
  while (i < text.size()) {
    std::size_t n = decodeAt(text, i, cp);
    const std::size_t width = (n != 0 && cp > 0xFFFF) ? 2 : 1;
    if (n == 0) n = 1;  // an invalid byte counts as one replacement character
    if (units + width > maxChars) break;
    units += width;
    i += n;
  }
  return std::string(text.substr(0, i));
}

std::string_view truncateUtf8Bytes(std::string_view text, std::size_t maxBytes) {
  if (text.size() <= maxBytes) return text;
  std::size_t end = maxBytes;
  // Back up over continuation bytes (10xxxxxx) to the start of the cut code point.
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

}  // namespace qev::base
