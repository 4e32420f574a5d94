#pragma once

#include <functional>
#include <optional>
#include <string>
#include <unordered_map>

#include "base/completions.h"
#include "base/error.h"
#include "base/json.h"

namespace qev::bridge {

using qev::Reject;
using qev::Resolve;
using Command = std::function<void(const Json& args, Resolve resolve, Reject reject)>;

// Command name to handler; names are compared exactly, letter case included.
using CommandTable = std::unordered_map<std::string, Command>;

// One call of the page: its request id, the command's name and its arguments.
struct BridgeMessage {
  std::string id;
  std::string name;
  Json args;  // always an array; a missing or non-array `args` counts as none
};

// Nothing unless the body is an object with string `id` and `name`: anything else is dropped
// without an answer, since there is no id to answer.
std::optional<BridgeMessage> parseBridgeMessage(const Json& body);

// A command argument read as a boolean: true, {"enabled"|"openAtLogin"|"autoLaunch": true},
// or one of the strings "1", "true", "yes", "on", "启用", "开启" (ASCII case ignored).
bool boolArg(const Json* value);

}  // namespace qev::bridge
