#include "proxies/selection_args.h"

#include <initializer_list>

#include "base/constants.h"

namespace qev::proxies {
namespace {

std::string firstString(const Json& object, std::initializer_list<const char*> keys) {
  for (const char* key : keys) {
    const auto it = object.find(key);
    if (it != object.end() && it->is_string()) return it->get<std::string>();
  }
  return {};
}

std::string stringOrEmpty(const Json& value) {
  return value.is_string() ? value.get<std::string>() : std::string();
}

}  // namespace

ProxyChoice parseSetProxyArgs(const Json& args) {
  ProxyChoice choice;
  if (args.is_array() && !args.empty()) {
    const Json& first = args.front();
    if (first.is_object()) {
      choice.group =
          firstString(first, {"group", "groupName", "group_name", "selector", "selectorName"});
      choice.name = firstString(first, {"name", "proxy", "proxyName", "proxy_name", "server",
                                        "value", "key", "node", "selected"});
    } else if (args.size() < 2) {
      choice.name = stringOrEmpty(first);
    } else {
      choice.group = stringOrEmpty(first);
      choice.name = stringOrEmpty(args[1]);
    }
  }
  if (choice.group.empty()) choice.group = std::string(kSelectorGroup);
  return choice;
}

}  // namespace qev::proxies
