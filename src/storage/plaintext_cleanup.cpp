#include "storage/plaintext_cleanup.h"

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "base/fs.h"

namespace qev::storage {
namespace {

void removeItem(const fs::path& path) {
  std::error_code ec;
  fs::remove_all(path, ec);
}

bool isBackupFolderName(std::string_view name) {
  return name.find("backup-") != std::string_view::npos || name.ends_with("-backup");
}

bool isPlaintextLeftoverName(std::string_view name) {
  constexpr std::array<std::string_view, 4> kNames = {"tmp.yaml", "config.yaml", "qevjs-full.yaml",
                                                      "tmp.yaml.before-fix-test.yaml"};
  for (auto known : kNames) {
    if (name == known) return true;
  }
  return name.ends_with(".before-fix-test.yaml");
}

}  // namespace

PlaintextCleanup::PlaintextCleanup(const Paths& paths, const ProtectedFiles& protectedFiles)
    : paths_(paths), protectedFiles_(protectedFiles) {}

void PlaintextCleanup::runAtStartup() const {
  migratePlaintextConfigsIfNeeded();
  removeRuntimePlaintextConfigs();
  cleanupLegacyPlaintextArtifacts();
  protectLegacySensitiveFiles();
}

void PlaintextCleanup::migratePlaintextConfigsIfNeeded() const {
  const std::array<std::pair<const fs::path*, const fs::path*>, 2> pairs = {{
      {&paths_.legacyTmpYaml, &paths_.protectedRawConfig},
      {&paths_.legacyConfigYaml, &paths_.protectedConfig},
  }};
  for (const auto& [plain, protectedFile] : pairs) {
    if (!base::itemExists(*plain)) continue;
    const auto bytes = base::readFile(*plain);
    if (!bytes) continue;
    if (protectedFiles_.writeProtectedData(*bytes, *protectedFile)) continue;
    std::error_code ec;
    fs::remove(*plain, ec);
  }
}

void PlaintextCleanup::removeRuntimePlaintextConfigs() const {
  for (const fs::path* file : {&paths_.tmpYaml, &paths_.configYaml}) {
    if (base::itemExists(*file)) removeItem(*file);
  }
}

void PlaintextCleanup::cleanupLegacyPlaintextArtifacts() const {
  struct Child {
    fs::path path;
    bool isDirectory;
  };
  std::vector<Child> children;
  std::error_code ec;
  for (fs::directory_iterator it(paths_.appSupport, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code statusError;
    // A link is judged as a link, never by what it points to.
    children.push_back({it->path(), it->is_directory(statusError) && !it->is_symlink(statusError)});
  }
  if (ec) return;
  for (const auto& child : children) {
    const std::string name = child.path.filename().string();
    if (child.isDirectory && isBackupFolderName(name)) {
      removeItem(child.path);
    } else if (isPlaintextLeftoverName(name) ||
               (!child.isDirectory && base::isAtomicWriteLeftover(name))) {
      removeItem(child.path);
    }
  }
}

void PlaintextCleanup::protectLegacySensitiveFiles() const {
  for (const char* name :
       {"token", "auth_data", "qevjs-local.json", "xboard-local.json", "native-webview.log"}) {
    const fs::path file = paths_.appSupport / name;
    if (base::itemExists(file)) (void)ProtectedFiles::protectFile(file);
  }
}

}  // namespace qev::storage
