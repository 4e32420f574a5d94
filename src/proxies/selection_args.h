#pragma once

#include <string>

#include "base/json.h"

namespace qev::proxies {

struct ProxyChoice {
  std::string group;  // "SELECT" when the arguments name none
  std::string name;   // "" when the arguments name none
};

// Reads a selection from a command's arguments: a dictionary with group and name under
// several accepted keys, or positional strings (name) / (group, name).
ProxyChoice parseSetProxyArgs(const Json& args);

}  // namespace qev::proxies
