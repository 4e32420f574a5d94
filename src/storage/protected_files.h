#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "storage/profile.h"

namespace qev::storage {

// The per-user mask: byte i XOR ((K[i mod n] + i*31) mod 256) with K = prefix + login name.
// Its own inverse.
std::string transformConfigData(std::string_view data, std::string_view userName);

// "QEVJS1\n" + Base64 of the masked payload.
std::string encodeProtected(std::string_view data, std::string_view userName);
// Reads either format; plain or undecodable content comes back as the raw bytes.
std::string decodeProtected(std::string_view fileBytes, std::string_view userName);

// Strict RFC 4648 Base64 (any character outside the alphabet, or bad padding, fails).
std::string base64Encode(std::string_view bytes);
std::optional<std::string> base64Decode(std::string_view text);

// The protected files of the data folder, bound to one login name.
class ProtectedFiles {
 public:
  ProtectedFiles(const Paths& paths, std::string userName);

  // Masks, encodes, writes atomically, then restricts to 0600.
  std::error_code writeProtectedData(std::string_view data, const fs::path& file) const;
  // The text's UTF-8 bytes, written as above.
  std::error_code writeProtectedString(std::string_view text, const fs::path& file) const;
  // Nothing only when the file cannot be read.
  std::optional<std::string> readProtectedData(const fs::path& file) const;
  // Plain bytes for the core at the runtime-config path, then 0600.
  std::error_code writeRuntimeConfigData(std::string_view data) const;
  // Owner read and write only (0600) on whatever is at `file`.
  static std::error_code protectFile(const fs::path& file);

 private:
  const Paths& paths_;
  std::string userName_;
};

}  // namespace qev::storage
