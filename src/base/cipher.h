#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace qev::base {

// Reverses the repeating-key XOR that keeps deployment addresses out of the binary's plain text.
inline std::string decipher(std::span<const std::uint8_t> bytes, std::string_view key) {
  std::string out;
  out.reserve(bytes.size());
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const auto k = key.empty() ? 0 : static_cast<std::uint8_t>(key[i % key.size()]);
    out.push_back(static_cast<char>(bytes[i] ^ k));
  }
  return out;
}

}  // namespace qev::base
