// Scheme URLs of any shape resolve to a file inside the frontend folder, never outside it.

#include <filesystem>

#include "app/asset_scheme.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace fs = std::filesystem;
  const std::string_view url = qev::fuzz::textOf(data, size);
  const std::string relative = qev::app::relativeAssetPath(qev::app::decodedUrlPath(url));

  const fs::path path(relative);
  FUZZ_CHECK(path.is_relative() && !path.has_root_name() && !path.has_root_directory());
  for (const auto& piece : path) FUZZ_CHECK(piece != "..");
  const fs::path dist("/srv/dist");
  const fs::path resolved = (dist / path).lexically_normal();
  FUZZ_CHECK(resolved == "/srv/dist/" || resolved.string().starts_with("/srv/dist/"));
  return 0;
}
