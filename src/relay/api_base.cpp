#include "relay/api_base.h"

#include "base/cipher.h"
#include "base/strings.h"
#include "qev/deployment.h"

namespace qev::relay {
namespace {

// The byte list as the build writes it into the page scripts: "[12, 34, 56]".
std::string byteList(std::string_view bytes) {
  std::string out = "[";
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i > 0) out += ", ";
    out += std::to_string(static_cast<unsigned char>(bytes[i]));
  }
  return out + "]";
}

std::string withoutTrailingSlashes(std::string_view base) {
  while (!base.empty() && base.back() == '/') base.remove_suffix(1);
  return std::string(base);
}

}  // namespace

std::string nativeFallbackAPIBase(const std::optional<std::string>& override) {
  if (override) {
    const auto trimmed = base::trimWhitespace(*override);
    if (!trimmed.empty()) return withoutTrailingSlashes(trimmed);
  }
  return withoutTrailingSlashes(
      base::decipher(deployment::kPanelApiBaseCipher, deployment::kCipherKey));
}

std::string withPageApiBase(std::string script, std::string_view base) {
  const auto& stored = deployment::kPanelApiBaseCipher;
  const std::string from =
      byteList(std::string_view(reinterpret_cast<const char*>(stored.data()), stored.size()));
  const std::string key(deployment::kCipherKey);
  std::string enciphered(base);
  for (std::size_t i = 0; i < enciphered.size() && !key.empty(); ++i) {
    enciphered[i] = static_cast<char>(enciphered[i] ^ key[i % key.size()]);
  }
  const std::string to = byteList(enciphered);
  if (from == to) return script;
  for (auto at = script.find(from); at != std::string::npos;
       at = script.find(from, at + to.size())) {
    script.replace(at, from.size(), to);
  }
  return script;
}

}  // namespace qev::relay
