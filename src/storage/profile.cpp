#include "storage/profile.h"

#include <pwd.h>
#include <unistd.h>
#ifdef __APPLE__
#include <mach-o/dyld.h>
#endif

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace qev::storage {
namespace {

std::optional<fs::path> envPath(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') return std::nullopt;
  return fs::path(value);
}

std::string loginName() {
  if (const passwd* pw = ::getpwuid(::geteuid()); pw != nullptr && pw->pw_name != nullptr) {
    return pw->pw_name;
  }
  if (const char* user = std::getenv("USER")) return user;
  return {};
}

fs::path runningExecutable() {
  std::error_code ec;
#ifdef __APPLE__
  std::uint32_t size = 0;
  _NSGetExecutablePath(nullptr, &size);
  std::string path(size, '\0');
  if (_NSGetExecutablePath(path.data(), &size) != 0) return {};
  path.resize(std::strlen(path.c_str()));
  const fs::path exe = fs::canonical(path, ec);
  return ec ? fs::path(path) : exe;
#else
  std::string exe = fs::read_symlink("/proc/self/exe", ec).string();
  if (ec) return {};
  // A package upgrade replaces the file under a running program: the link then names the old
  // inode, and the path is still where the new program lives.
  constexpr std::string_view kReplaced = " (deleted)";
  if (exe.ends_with(kReplaced)) exe.resize(exe.size() - kReplaced.size());
  return exe;
#endif
}

std::vector<std::string> stalePatterns(const std::string& currentFolder,
                                       const std::string& legacyFolder) {
  return {
      "clash.mihomo.*" + currentFolder + "/.*config.yaml",
      "clash.mihomo.*" + currentFolder + "/config.yaml",
      "clash.mihomo.*" + legacyFolder + "/.*config.yaml",
      "clash.mihomo.*" + legacyFolder + "/config.yaml",
  };
}

// The data-folder files, the same on every platform.
void fillDataFiles(Paths& p) {
  p.legacyTmpYaml = p.appSupport / "tmp.yaml";
  p.legacyConfigYaml = p.appSupport / "config.yaml";
  p.tmpYaml = p.appSupport / ".qevjs-runtime-tmp.yaml";
  p.configYaml = p.appSupport / ".qevjs-runtime-config.yaml";
  p.protectedRawConfig = p.appSupport / ".qevjs-subscribe.dat";
  p.protectedConfig = p.appSupport / ".qevjs-config.dat";
  p.settings = p.appSupport / "qevjs-local.json";
  p.log = p.appSupport / "native-webview.log";
  p.instanceLock = p.appSupport / ".qevjs-instance.lock";
  p.subscriptionRecord = p.appSupport / ".qevjs-subscription.dat";
}

}  // namespace

fs::path resourcesBeside(const fs::path& executable) {
  if (executable.empty()) return ".";
  const fs::path above = executable.parent_path().parent_path();
  std::error_code ec;
  for (const fs::path& candidate : {above / "share" / "qev", above / "Resources"}) {
    if (fs::is_directory(candidate, ec)) return candidate;
  }
  return ".";
}

Environment Environment::fromProcess() {
  Environment env;
  env.home = envPath("HOME").value_or([] {
    const passwd* pw = ::getpwuid(::geteuid());
    return fs::path(pw != nullptr && pw->pw_dir != nullptr ? pw->pw_dir : "/");
  }());
  env.userName = loginName();
  env.executable = runningExecutable();
  env.xdgDataHome = envPath("XDG_DATA_HOME");
  env.xdgConfigHome = envPath("XDG_CONFIG_HOME");
  if (auto dir = envPath("QEV_RESOURCES_DIR")) {
    env.resources = *dir;
  } else {
    env.resources = resourcesBeside(env.executable);
  }
  return env;
}

Profile Profile::forMacOS(const Environment& env) {
  Profile profile;
  profile.platform = Platform::MacOS;
  profile.platformName = "darwin";
  profile.userName = env.userName;
  Paths& p = profile.paths;
  const fs::path support = env.home / "Library" / "Application Support";
  p.appSupport = support / "qevjs";
  p.legacyAppSupport = support / "merivox";
  fillDataFiles(p);
  p.resources = env.resources;
  p.libs = env.resources / "libs" / "darwin";
  p.dist = env.resources / "dist";
  // The resources folder sits at X.app/Contents/Resources.
  p.appBundle = env.resources.parent_path().parent_path();
  p.launchAgent = env.home / "Library" / "LaunchAgents" / "com.qevjs.native.plist";
  profile.staleCorePatterns =
      stalePatterns("Application Support/qevjs", "Application Support/merivox");
  return profile;
}

Profile Profile::forLinux(const Environment& env) {
  Profile profile;
  profile.platform = Platform::Linux;
  profile.platformName = "linux";
  profile.userName = env.userName;
  Paths& p = profile.paths;
  const fs::path dataHome = env.xdgDataHome.value_or(env.home / ".local" / "share");
  const fs::path configHome = env.xdgConfigHome.value_or(env.home / ".config");
  p.appSupport = dataHome / "qevjs";
  p.legacyAppSupport = dataHome / "merivox";
  fillDataFiles(p);
  p.resources = env.resources;
  p.libs = env.resources / "libs" / "linux";
  p.dist = env.resources / "dist";
  p.appBundle = env.executable;
  p.launchAgent = configHome / "autostart" / "com.qevjs.native.desktop";
  profile.staleCorePatterns = stalePatterns("/qevjs", "/merivox");
  return profile;
}

Profile Profile::forThisPlatform(const Environment& env) {
#ifdef __APPLE__
  return forMacOS(env);
#else
  return forLinux(env);
#endif
}

}  // namespace qev::storage
