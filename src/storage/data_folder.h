#pragma once

#include <system_error>

#include "base/logger.h"
#include "storage/profile.h"

namespace qev::storage {

// Brings the data folder of the earlier edition over once: a plain move when the current
// folder does not exist, otherwise a merge in which the current folder wins every name and the
// legacy folder is removed afterwards. Failures go to `systemLog` only; never fails outward.
void migrateAppSupportDirectoryIfNeeded(const Paths& paths, const base::Logger& systemLog);

// Creates the data folder (with its parents) owner-only, 0700; failures are ignored because
// every later step reports its own file errors.
void createDataFolder(const Paths& paths);

// Copies a file or folder to `destination`, first removing whatever is there. Not atomic: a
// failed copy leaves the destination absent.
std::error_code copyItemReplacing(const fs::path& source, const fs::path& destination);

}  // namespace qev::storage
