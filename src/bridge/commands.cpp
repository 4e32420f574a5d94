#include "bridge/commands.h"

#include <array>

#include "base/strings.h"

namespace qev::bridge {

std::optional<BridgeMessage> parseBridgeMessage(const Json& body) {
  if (!body.is_object()) return std::nullopt;
  const auto id = body.find("id");
  const auto name = body.find("name");
  if (id == body.end() || !id->is_string() || name == body.end() || !name->is_string()) {
    return std::nullopt;
  }
  const auto args = body.find("args");
  return BridgeMessage{id->get<std::string>(), name->get<std::string>(),
                       args != body.end() && args->is_array() ? *args : Json::array()};
}

bool boolArg(const Json* value) {
  if (value == nullptr) return false;
  if (value->is_boolean()) return value->get<bool>();
  if (value->is_object()) {
    for (const char* key : {"enabled", "openAtLogin", "autoLaunch"}) {
      const auto it = value->find(key);
      if (it != value->end() && it->is_boolean()) return it->get<bool>();
    }
    return false;
  }
  if (value->is_string()) {
    const std::string lower = base::toLowerAscii(value->get_ref<const std::string&>());
    constexpr std::array<std::string_view, 6> kTrue = {"1", "true", "yes", "on", "启用", "开启"};
    for (auto word : kTrue) {
      if (lower == word) return true;
    }
  }
  return false;
}

}  // namespace qev::bridge
