#include "relay/api_base.h"

#include "base/cipher.h"
#include "base/strings.h"
#include "qev/deployment.h"

namespace qev::relay {
namespace {

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

}  // namespace qev::relay
