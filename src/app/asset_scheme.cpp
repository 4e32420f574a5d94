#include "app/asset_scheme.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>
#include <vector>

#include "base/fs.h"
#include "base/strings.h"

namespace qev::app {
namespace {

namespace fs = std::filesystem;

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// %XX sequences become bytes; a malformed sequence stays as written.
std::string percentDecoded(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      const int high = hexValue(text[i + 1]);
      const int low = hexValue(text[i + 2]);
      if (high >= 0 && low >= 0) {
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
        continue;
      }
    }
    out.push_back(text[i]);
  }
  return out;
}

// The whole file, or the errno of the failed open or read.
Result<std::string> readWholeFile(const fs::path& file) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    const int error = errno;
    return BridgeError{std::string(kReadErrorDomain), error,
                       base::describe(std::error_code(error, std::generic_category()), file)};
  }
  std::string bytes;
  char buffer[64 * 1024];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      bytes.append(buffer, static_cast<std::size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int error = errno;
      ::close(fd);
      return BridgeError{std::string(kReadErrorDomain), error,
                         base::describe(std::error_code(error, std::generic_category()), file)};
    }
    break;
  }
  ::close(fd);
  return bytes;
}

std::string extensionOf(const fs::path& file) {
  std::string extension = file.extension().string();
  if (!extension.empty()) extension.erase(0, 1);  // the dot
  return extension;
}

}  // namespace

std::string_view mimeTypeForExtension(std::string_view extension) {
  const std::string lower = base::toLowerAscii(extension);
  if (lower == "html") return "text/html";
  if (lower == "js") return "application/javascript";
  if (lower == "css") return "text/css";
  if (lower == "svg") return "image/svg+xml";
  if (lower == "png") return "image/png";
  if (lower == "jpg" || lower == "jpeg") return "image/jpeg";
  if (lower == "json") return "application/json";
  return "application/octet-stream";
}

std::string decodedUrlPath(std::string_view url) {
  std::string_view rest = url;
  if (const auto end = rest.find_first_of("?#"); end != std::string_view::npos) {
    rest = rest.substr(0, end);
  }
  if (const auto authority = rest.find("://"); authority != std::string_view::npos) {
    rest = rest.substr(authority + 3);
    const auto slash = rest.find('/');
    rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash);
  } else if (const auto colon = rest.find(':');
             colon != std::string_view::npos && rest.find('/') > colon) {
    rest = rest.substr(colon + 1);  // "scheme:/path" without an authority
  }
  return percentDecoded(rest);
}

std::string relativeAssetPath(std::string_view decodedPath) {
  if (decodedPath.empty() || decodedPath == "/") return "index.html";
  std::vector<std::string> pieces;
  std::size_t start = 0;
  while (start <= decodedPath.size()) {
    auto end = decodedPath.find('/', start);
    if (end == std::string_view::npos) end = decodedPath.size();
    const auto piece = decodedPath.substr(start, end - start);
    if (!piece.empty() && piece != "..") pieces.emplace_back(piece);
    start = end + 1;
  }
  return base::join(pieces, "/");
}

AssetScheme::AssetScheme(fs::path dist, std::string ossConfigScript)
    : dist_(std::move(dist)), ossConfigScript_(std::move(ossConfigScript)) {}

Result<Asset> AssetScheme::serve(std::string_view url) const {
  if (url.empty()) {
    return BridgeError{std::string(kAssetErrorDomain), 1, "The request has no URL."};
  }
  const std::string relative = relativeAssetPath(decodedUrlPath(url));
  if (relative == kOssConfigFileName) {
    return Asset{"application/javascript", ossConfigScript_, "utf-8", {}};
  }

  fs::path file = dist_ / relative;
  std::error_code ec;
  // A NUL byte cannot name a file; treat it like any other missing file.
  const bool missing = relative.find('\0') != std::string::npos || !fs::exists(file, ec);
  if (extensionOf(file).empty() || missing) file = dist_ / "index.html";

  auto bytes = readWholeFile(file);
  if (!bytes) return bytes.error();
  return Asset{std::string(mimeTypeForExtension(extensionOf(file))), std::move(bytes).value(),
               "utf-8", file};
}

}  // namespace qev::app
