#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace qev::storage {

namespace fs = std::filesystem;

enum class Platform { MacOS, Linux };

// What the process was given by its surroundings. Tests build one by hand.
struct Environment {
  fs::path home;
  fs::path resources;
  std::string userName;  // the login name that keys the protected-file mask
  fs::path executable;   // absolute path of the running program
  std::optional<fs::path> xdgDataHome;
  std::optional<fs::path> xdgConfigHome;

  // Reads HOME, the XDG variables, the login name and the executable's path; the resources
  // folder is QEV_RESOURCES_DIR, else the one beside the executable.
  static Environment fromProcess();
};

// The resources folder of a program installed at `executable`: ../share/qev (bin/qev), else the
// bundle's ../Resources (QEV.app/Contents/MacOS/QEV), else the current folder.
fs::path resourcesBeside(const fs::path& executable);

// Every path of the data folder and the bundle, fixed once; nothing here touches the disk.
struct Paths {
  fs::path appSupport;          // the data folder (0700)
  fs::path legacyAppSupport;    // data folder of the earlier edition
  fs::path tmpYaml;             // ".qevjs-runtime-tmp.yaml"
  fs::path configYaml;          // ".qevjs-runtime-config.yaml", plaintext for the core
  fs::path legacyTmpYaml;       // "tmp.yaml"
  fs::path legacyConfigYaml;    // "config.yaml"
  fs::path protectedRawConfig;  // ".qevjs-subscribe.dat"
  fs::path protectedConfig;     // ".qevjs-config.dat"
  fs::path subscriptionRecord;  // ".qevjs-subscription.dat": link, usage, update times
  fs::path settings;            // "qevjs-local.json"
  fs::path libs;                // shipped executables and geo data
  fs::path appBundle;           // what the auto-launch entry starts
  fs::path launchAgent;         // auto-launch file; its existence is the state
  fs::path log;                 // "native-webview.log"
  fs::path instanceLock;        // ".qevjs-instance.lock", held by the running qev
  fs::path resources;
  fs::path dist;  // the frontend
};

// What differs per platform.
struct Profile {
  Platform platform = Platform::Linux;
  std::string platformName;  // "darwin" or "linux", as the page and update checks see it
  Paths paths;
  std::vector<std::string> staleCorePatterns;  // pkill -f patterns for stray cores
  std::string userName;

  static Profile forMacOS(const Environment& env);
  static Profile forLinux(const Environment& env);
  // The profile of the platform this binary was built for.
  static Profile forThisPlatform(const Environment& env);
};

}  // namespace qev::storage
