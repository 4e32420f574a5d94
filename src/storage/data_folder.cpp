#include "storage/data_folder.h"

#include <string>
#include <vector>

#include "base/fs.h"

namespace qev::storage {
namespace {

constexpr auto kOwnerOnlyFolder = fs::perms::owner_all;  // 0700

// Recursive for folders; links are copied as links, as the platform's item copy does.
std::error_code copyItem(const fs::path& source, const fs::path& destination) {
  std::error_code ec;
  fs::copy(source, destination, fs::copy_options::recursive | fs::copy_options::copy_symlinks, ec);
  return ec;
}

std::error_code restrictFolder(const fs::path& folder) {
  std::error_code ec;
  fs::permissions(folder, kOwnerOnlyFolder, fs::perm_options::replace, ec);
  return ec;
}

std::error_code moveLegacyFolder(const Paths& paths) {
  std::error_code ec;
  fs::rename(paths.legacyAppSupport, paths.appSupport, ec);
  if (ec) return ec;
  return restrictFolder(paths.appSupport);
}

// The first failure ends the merge; children copied so far stay copied.
std::error_code mergeLegacyFolder(const Paths& paths) {
  std::error_code ec;
  fs::create_directories(paths.appSupport, ec);
  if (ec) return ec;
  std::vector<fs::path> children;
  for (fs::directory_iterator it(paths.legacyAppSupport, ec), end; !ec && it != end;
       it.increment(ec)) {
    children.push_back(it->path());
  }
  if (ec) return ec;
  for (const auto& child : children) {
    const fs::path destination = paths.appSupport / child.filename();
    if (base::itemExists(destination)) continue;  // the current folder wins
    if ((ec = copyItem(child, destination))) return ec;
  }
  if ((ec = restrictFolder(paths.appSupport))) return ec;
  fs::remove_all(paths.legacyAppSupport, ec);
  return ec;
}

}  // namespace

void migrateAppSupportDirectoryIfNeeded(const Paths& paths, const base::Logger& systemLog) {
  if (!base::itemExists(paths.legacyAppSupport)) return;
  // Only a folder is the earlier edition's data; a stray file of that name is left alone
  // rather than moved into the data folder's place.
  std::error_code ec;
  if (!fs::is_directory(fs::symlink_status(paths.legacyAppSupport, ec))) return;
  if (paths.legacyAppSupport.string() == paths.appSupport.string()) return;
  if (!base::itemExists(paths.appSupport)) {
    if (const auto ec = moveLegacyFolder(paths)) {
      systemLog.message("failed to move legacy app support: " +
                        base::describe(ec, paths.legacyAppSupport));
    }
    return;
  }
  if (const auto ec = mergeLegacyFolder(paths)) {
    systemLog.message("failed to merge legacy app support: " +
                      base::describe(ec, paths.legacyAppSupport));
  }
}

void createDataFolder(const Paths& paths) {
  std::error_code ec;
  fs::create_directories(paths.appSupport, ec);
  (void)restrictFolder(paths.appSupport);
}

std::error_code copyItemReplacing(const fs::path& source, const fs::path& destination) {
  if (base::itemExists(destination)) {
    std::error_code ec;
    fs::remove_all(destination, ec);
    if (ec) return ec;
  }
  return copyItem(source, destination);
}

}  // namespace qev::storage
