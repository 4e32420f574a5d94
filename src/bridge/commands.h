#pragma once

#include <functional>
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

// A command argument read as a boolean: true, {"enabled"|"openAtLogin"|"autoLaunch": true},
// or one of the strings "1", "true", "yes", "on", "启用", "开启" (ASCII case ignored).
bool boolArg(const Json* value);

}  // namespace qev::bridge
