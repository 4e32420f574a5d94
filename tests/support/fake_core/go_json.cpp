#include "go_json.h"

#include <cctype>
#include <sstream>

namespace fake_core {

std::optional<nlohmann::json> decodeFirstJsonValue(std::string_view body) {
  std::istringstream stream{std::string(body)};
  nlohmann::json value;
  try {
    stream >> value;
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
  return value;
}

const nlohmann::json* goField(const nlohmann::json& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  if (auto exact = object.find(std::string(key)); exact != object.end()) return &*exact;
  for (auto it = object.begin(); it != object.end(); ++it) {
    const std::string& candidate = it.key();
    if (candidate.size() != key.size()) continue;
    bool same = true;
    for (std::size_t i = 0; i < key.size() && same; ++i) {
      same = std::tolower(static_cast<unsigned char>(candidate[i])) ==
             std::tolower(static_cast<unsigned char>(key[i]));
    }
    if (same) return &it.value();
  }
  return nullptr;
}

}  // namespace fake_core
