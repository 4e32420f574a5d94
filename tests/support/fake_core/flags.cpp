#include "flags.h"

#include <cstdlib>
#include <map>

#include "knobs.h"

namespace fake_core {
namespace {

std::string usage(const std::string& program) {
  return "Usage of " + program +
         ":\n"
         "  -config string\n    \tspecify base64-encoded configuration string\n"
         "  -d string\n    \tset configuration directory\n"
         "  -ext-ctl string\n    \toverride external controller address\n"
         "  -ext-ui string\n    \toverride external ui directory\n"
         "  -f string\n    \tspecify configuration file\n"
         "  -m\tset geodata mode\n"
         "  -secret string\n    \toverride secret for RESTful API\n"
         "  -t\ttest configuration and exit\n"
         "  -v\tshow current version of mihomo\n";
}

std::optional<bool> parseBool(const std::string& text) {
  if (text == "1" || text == "t" || text == "T" || text == "true" || text == "TRUE" ||
      text == "True") {
    return true;
  }
  if (text == "0" || text == "f" || text == "F" || text == "false" || text == "FALSE" ||
      text == "False") {
    return false;
  }
  return std::nullopt;
}

}  // namespace

FlagParse parseFlags(const std::vector<std::string>& args) {
  const std::string program = args.empty() ? "mihomo" : args[0];
  Flags flags;
  flags.homeDir = env("CLASH_HOME_DIR");
  flags.configFile = env("CLASH_CONFIG_FILE");
  flags.configText = env("CLASH_CONFIG_STRING");
  flags.extCtl = env("CLASH_OVERRIDE_EXTERNAL_CONTROLLER");
  flags.secret = env("CLASH_OVERRIDE_SECRET");

  std::map<std::string, std::string*> strings = {
      {"d", &flags.homeDir},         {"f", &flags.configFile},   {"config", &flags.configText},
      {"ext-ui", &flags.externalUi}, {"ext-ctl", &flags.extCtl}, {"secret", &flags.secret}};
  std::map<std::string, bool*> booleans = {
      {"m", &flags.geodataMode}, {"v", &flags.version}, {"t", &flags.test}};
  const auto fail = [&](const std::string& message) {
    return FlagParse{std::nullopt, 2, message + "\n" + usage(program)};
  };

  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg.size() < 2 || arg[0] != '-') break;
    std::size_t dashes = 1;
    if (arg[1] == '-') {
      if (arg.size() == 2) break;  // "--" ends the flags
      dashes = 2;
    }
    std::string name = arg.substr(dashes);
    if (name.empty() || name[0] == '-' || name[0] == '=') return fail("bad flag syntax: " + arg);
    std::optional<std::string> value;
    if (const auto equals = name.find('='); equals != std::string::npos) {
      value = name.substr(equals + 1);
      name = name.substr(0, equals);
    }
    if (name == "h" || name == "help") return FlagParse{std::nullopt, 0, usage(program)};
    if (auto it = booleans.find(name); it != booleans.end()) {
      if (!value) {
        *it->second = true;
        continue;
      }
      const auto parsed = parseBool(*value);
      if (!parsed)
        return fail("invalid boolean value \"" + *value + "\" for -" + name + ": parse error");
      *it->second = *parsed;
      continue;
    }
    auto it = strings.find(name);
    if (it == strings.end()) return fail("flag provided but not defined: -" + name);
    if (!value) {
      if (i + 1 >= args.size()) return fail("flag needs an argument: -" + name);
      value = args[++i];
    }
    *it->second = *value;
  }
  return FlagParse{flags, 0, ""};
}

}  // namespace fake_core
