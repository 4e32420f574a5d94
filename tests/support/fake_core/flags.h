#pragma once

#include <optional>
#include <string>
#include <vector>

namespace fake_core {

// The core's command line. Defaults come from the same environment variables the core reads.
struct Flags {
  std::string homeDir;       // -d (CLASH_HOME_DIR)
  std::string configFile;    // -f (CLASH_CONFIG_FILE)
  std::string configText;    // -config, base64 (CLASH_CONFIG_STRING)
  std::string externalUi;    // -ext-ui, accepted and ignored
  std::string extCtl;        // -ext-ctl (CLASH_OVERRIDE_EXTERNAL_CONTROLLER)
  std::string secret;        // -secret (CLASH_OVERRIDE_SECRET)
  bool geodataMode = false;  // -m, accepted and ignored
  bool version = false;      // -v
  bool test = false;         // -t
};

struct FlagParse {
  std::optional<Flags> flags;  // none: exit with `exitCode` after printing `message` to stderr
  int exitCode = 0;
  std::string message;
};

// Parses like the core's flag package: "-x value", "-x=value", "--x", booleans only as "-t" or
// "-t=false"; parsing stops at the first non-flag argument or "--". An unknown flag, a missing
// value or a bad boolean prints the error and the usage and exits 2; -h/-help prints the usage
// and exits 0.
FlagParse parseFlags(const std::vector<std::string>& args);

}  // namespace fake_core
