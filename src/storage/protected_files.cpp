#include "storage/protected_files.h"

#include <array>
#include <cstdint>

#include "base/fs.h"
#include "base/strings.h"
#include "base/utf8.h"

namespace qev::storage {
namespace {

constexpr std::string_view kHeader = "QEVJS1\n";
constexpr std::string_view kMaskPrefix = "zk4q-vault-mask-seed-77:";
constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Value of each Base64 character, -1 for everything outside the alphabet.
constexpr std::array<int, 256> makeDecodeTable() {
  std::array<int, 256> table{};
  for (auto& v : table) v = -1;
  for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
    table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int>(i);
  }
  return table;
}
constexpr auto kDecodeTable = makeDecodeTable();

}  // namespace

std::string transformConfigData(std::string_view data, std::string_view userName) {
  std::string key;
  key.reserve(kMaskPrefix.size() + userName.size());
  key.append(kMaskPrefix).append(userName);
  if (key.empty()) return std::string(data);
  std::string out;
  out.resize(data.size());
  const std::size_t n = key.size();
  for (std::size_t i = 0; i < data.size(); ++i) {
    const auto k = static_cast<std::uint8_t>(key[i % n]);
    // Only the low eight bits of the index term matter, so the product may wrap freely.
    const auto s = static_cast<std::uint8_t>(k + static_cast<std::uint8_t>(i * 31u));
    out[i] = static_cast<char>(static_cast<std::uint8_t>(data[i]) ^ s);
  }
  return out;
}

std::string base64Encode(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  const auto byteAt = [&](std::size_t k) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[k]));
  };
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t v = byteAt(i) << 16 | byteAt(i + 1) << 8 | byteAt(i + 2);
    out += kAlphabet[v >> 18 & 63];
    out += kAlphabet[v >> 12 & 63];
    out += kAlphabet[v >> 6 & 63];
    out += kAlphabet[v & 63];
  }
  const std::size_t rest = bytes.size() - i;
  if (rest == 1) {
    const std::uint32_t v = byteAt(i) << 16;
    out += kAlphabet[v >> 18 & 63];
    out += kAlphabet[v >> 12 & 63];
    out += "==";
  } else if (rest == 2) {
    const std::uint32_t v = byteAt(i) << 16 | byteAt(i + 1) << 8;
    out += kAlphabet[v >> 18 & 63];
    out += kAlphabet[v >> 12 & 63];
    out += kAlphabet[v >> 6 & 63];
    out += '=';
  }
  return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  if (!text.empty() && text.back() == '=') {
    ++padding;
    if (text.size() >= 2 && text[text.size() - 2] == '=') ++padding;
  }
  std::string out;
  out.reserve(text.size() / 4 * 3);
  const std::size_t dataChars = text.size() - padding;
  std::uint32_t accumulator = 0;
  int bits = 0;
  for (std::size_t i = 0; i < dataChars; ++i) {
    const int v = kDecodeTable[static_cast<unsigned char>(text[i])];
    if (v < 0) return std::nullopt;  // includes '=' anywhere but the end
    accumulator = (accumulator << 6) | static_cast<std::uint32_t>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += static_cast<char>((accumulator >> bits) & 0xFF);
    }
  }
  // Bits left over beside the padding must be zero, so each byte string has one text.
  if ((accumulator & ((1u << bits) - 1)) != 0) return std::nullopt;
  return out;
}

std::string encodeProtected(std::string_view data, std::string_view userName) {
  std::string text(kHeader);
  text += base64Encode(transformConfigData(data, userName));
  return text;
}

std::string decodeProtected(std::string_view fileBytes, std::string_view userName) {
  // Plain files of older versions, and anything that is not text, are taken as they are.
  if (!base::isValidUtf8(fileBytes) || !fileBytes.starts_with(kHeader)) {
    return std::string(fileBytes);
  }
  const auto body = base::trimWhitespace(fileBytes.substr(kHeader.size()));
  auto masked = base64Decode(body);
  // An undecodable body comes back whole, header included, so that the caller's own checks
  // reject it as configuration.
  if (!masked) return std::string(fileBytes);
  return transformConfigData(*masked, userName);
}

ProtectedFiles::ProtectedFiles(const Paths& paths, std::string userName)
    : paths_(paths), userName_(std::move(userName)) {}

std::error_code ProtectedFiles::writeProtectedData(std::string_view data,
                                                   const fs::path& file) const {
  if (auto ec = base::writeFileAtomic(file, encodeProtected(data, userName_))) return ec;
  return protectFile(file);
}

std::error_code ProtectedFiles::writeProtectedString(std::string_view text,
                                                     const fs::path& file) const {
  return writeProtectedData(text, file);
}

std::optional<std::string> ProtectedFiles::readProtectedData(const fs::path& file) const {
  auto bytes = base::readFile(file);
  if (!bytes) return std::nullopt;
  return decodeProtected(*bytes, userName_);
}

std::error_code ProtectedFiles::writeRuntimeConfigData(std::string_view data) const {
  if (auto ec = base::writeFileAtomic(paths_.configYaml, data)) return ec;
  return protectFile(paths_.configYaml);
}

std::error_code ProtectedFiles::protectFile(const fs::path& file) {
  std::error_code ec;
  fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write, fs::perm_options::replace,
                  ec);
  return ec;
}

}  // namespace qev::storage
