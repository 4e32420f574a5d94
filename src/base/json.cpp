#include "base/json.h"

namespace qev::base {

bool jsonNestingWithin(std::string_view text, std::size_t limit) {
  std::size_t depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') {
        ++i;  // the escaped character cannot end the string
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    switch (c) {
      case '"':
        inString = true;
        break;
      case '[':
      case '{':
        if (++depth > limit) return false;
        break;
      case ']':
      case '}':
        if (depth > 0) --depth;
        break;
      default:
        break;
    }
  }
  return true;
}

const Json* firstArg(const Json& args) {
  return (args.is_array() && !args.empty()) ? &args.front() : nullptr;
}

std::string stringField(const Json& object, const char* key) {
  const auto it = object.find(key);
  return it != object.end() && it->is_string() ? it->get<std::string>() : std::string();
}

Json parseJson(std::string_view text) {
  if (!jsonNestingWithin(text)) return Json(Json::value_t::discarded);
  return Json::parse(text, nullptr, false);
}

}  // namespace qev::base
