#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <string_view>

#include "base/json.h"
#include "base/logger.h"

namespace qev::bridge {

// The plain-text diagnostic log. Every entry is redacted before it reaches the disk; writing
// never fails outward. Safe to call from any thread: each entry is one open-append-close.
class DiagnosticLog final : public base::Logger {
 public:
  explicit DiagnosticLog(std::filesystem::path file);

  // Payload as the page's log channel sends it ({"message": text}) or any other value.
  void append(const Json& payload) const noexcept;
  void message(std::string_view text) const noexcept override;

  const std::filesystem::path& file() const { return file_; }

 private:
  void write(std::string_view redactedText) const noexcept;

  std::filesystem::path file_;
};

}  // namespace qev::bridge
