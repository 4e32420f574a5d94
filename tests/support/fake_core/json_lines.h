#pragma once

#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

namespace fake_core {

// Appends one compact JSON value per line to a file; does nothing when the path is empty.
// Each line is written and flushed whole, so a test may read the file at any moment.
class JsonLinesFile {
 public:
  explicit JsonLinesFile(std::string path) : path_(std::move(path)) {}
  void append(const nlohmann::json& value);

 private:
  std::string path_;
  std::mutex mutex_;
};

}  // namespace fake_core
