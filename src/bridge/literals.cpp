#include "bridge/literals.h"

#include <cmath>
#include <cstdio>

#include "base/utf8.h"

namespace qev::bridge {
namespace {

// Appends the escape for one scalar, or the scalar's own bytes.
void appendScalar(std::string& out, char32_t cp, std::string_view bytes) {
  switch (cp) {
    case U'"':
      out += "\\\"";
      return;
    case U'\\':
      out += "\\\\";
      return;
    case U'\b':
      out += "\\b";
      return;
    case U'\f':
      out += "\\f";
      return;
    case U'\n':
      out += "\\n";
      return;
    case U'\r':
      out += "\\r";
      return;
    case U'\t':
      out += "\\t";
      return;
    case 0x2028:
      out += "\\u2028";
      return;
    case 0x2029:
      out += "\\u2029";
      return;
    default:
      break;
  }
  if (cp < 0x20) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(cp));
    out += buf;
    return;
  }
  out.append(bytes);
}

// JSON has no text for NaN, the infinities or binary data; the serializer would quietly write
// null or an object for them.
bool hasNonJsonValue(const Json& value) {
  switch (value.type()) {
    case Json::value_t::number_float:
      return !std::isfinite(value.get<double>());
    case Json::value_t::binary:
    case Json::value_t::discarded:
      return true;
    case Json::value_t::object:
    case Json::value_t::array:
      for (const auto& child : value) {
        if (hasNonJsonValue(child)) return true;
      }
      return false;
    default:
      return false;
  }
}

}  // namespace

std::string jsStringLiteral(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  out.push_back('"');
  for (std::size_t i = 0; i < text.size();) {
    const auto b0 = static_cast<unsigned char>(text[i]);
    if (b0 < 0x80) {
      appendScalar(out, b0, text.substr(i, 1));
      ++i;
      continue;
    }
    // Multi-byte sequence: find its length and validate it before copying it whole.
    const std::size_t len = b0 >= 0xF0 ? 4 : b0 >= 0xE0 ? 3 : b0 >= 0xC0 ? 2 : 1;
    const std::string_view seq = text.substr(i, len);
    if (len == 1 || seq.size() != len || !base::isValidUtf8(seq)) {
      out += "\xEF\xBF\xBD";
      ++i;
      continue;
    }
    char32_t cp = b0 & (0x7F >> len);
    for (std::size_t k = 1; k < len; ++k)
      cp = (cp << 6) | (static_cast<unsigned char>(seq[k]) & 0x3F);
    appendScalar(out, cp, seq);
    i += len;
  }
  out.push_back('"');
  return out;
}

std::string jsonLiteral(const Json& value) {
  switch (value.type()) {
    case Json::value_t::string: {
      const auto& text = value.get_ref<const std::string&>();
      return base::isValidUtf8(text) ? jsStringLiteral(text) : "null";
    }
    case Json::value_t::boolean:
      return value.get<bool>() ? "true" : "false";
    case Json::value_t::number_integer:
    case Json::value_t::number_unsigned:
    case Json::value_t::number_float:
      return hasNonJsonValue(value) ? "null" : value.dump();
    case Json::value_t::object:
    case Json::value_t::array:
      if (hasNonJsonValue(value)) return "null";
      try {
        return value.dump();  // throws on invalid UTF-8 in any key or string
      } catch (const Json::exception&) {
        return "null";
      }
    default:
      return "null";
  }
}

}  // namespace qev::bridge
