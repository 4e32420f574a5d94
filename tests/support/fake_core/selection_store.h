#pragma once

#include <filesystem>
#include <map>
#include <string>

namespace fake_core {

// The selected member of each group, kept in the home folder's "cache.db" (JSON here) so that
// choices survive reloads and restarts, as the core's own cache does. Not thread-safe.
class SelectionStore {
 public:
  explicit SelectionStore(std::filesystem::path file);
  const std::map<std::string, std::string>& all() const { return selected_; }
  void remember(const std::string& group, const std::string& member);

 private:
  std::filesystem::path file_;
  std::map<std::string, std::string> selected_;
};

}  // namespace fake_core
