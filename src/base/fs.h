#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace qev::base {

// Writes `bytes` to a temporary file beside `path` and renames it into place, so readers see
// the old or the new content, never a mix. The new file is created owner-only (0600).
std::error_code writeFileAtomic(const std::filesystem::path& path, std::string_view bytes);
// Whether `name` is a temporary file of writeFileAtomic (".<name>.tmp-XXXXXX"), which a crash
// between writing and renaming leaves behind.
bool isAtomicWriteLeftover(std::string_view name);

// The whole file, or nothing when it cannot be opened or read.
std::optional<std::string> readFile(const std::filesystem::path& path);

// Whether anything (file, folder, dangling link) exists at `path`, without throwing.
bool itemExists(const std::filesystem::path& path);

// Human-readable text of a failed file operation, e.g. "Permission denied: /x/y".
std::string describe(const std::error_code& ec, const std::filesystem::path& path);

}  // namespace qev::base
