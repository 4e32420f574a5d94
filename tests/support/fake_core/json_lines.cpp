#include "json_lines.h"

#include <cstdio>

namespace fake_core {

void JsonLinesFile::append(const nlohmann::json& value) {
  if (path_.empty()) return;
  const std::string line =
      value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  std::lock_guard lock(mutex_);
  if (FILE* file = std::fopen(path_.c_str(), "ab")) {
    std::fwrite(line.data(), 1, line.size(), file);
    std::fclose(file);
  }
}

}  // namespace fake_core
