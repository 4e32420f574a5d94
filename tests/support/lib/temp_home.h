#pragma once

#include <filesystem>
#include <string>

#include "storage/profile.h"

namespace qev::test {

// A fresh folder under the system temp dir, removed with everything in it at the end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// An environment whose home, resources and XDG folders live in `root`.
storage::Environment environmentIn(const std::filesystem::path& root,
                                   const std::string& userName = "tester");

std::string readText(const std::filesystem::path& file);
void writeText(const std::filesystem::path& file, const std::string& text);
unsigned permissionsOf(const std::filesystem::path& path);  // e.g. 0600

}  // namespace qev::test
