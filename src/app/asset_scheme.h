#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "base/error.h"

namespace qev::app {

// The scheme the frontend is served from, and its start page.
inline constexpr std::string_view kAssetScheme = "qevnative";
inline constexpr std::string_view kStartPageUrl = "qevnative://app/";
// The file answered from memory instead of from `dist`, at the top level only.
inline constexpr std::string_view kOssConfigFileName = "qevjs-oss-config.js";
// The domain of the error for a request without a URL.
inline constexpr std::string_view kAssetErrorDomain = "StaticAssetScheme";
// The domain of a file that could not be read; the code is the errno value.
inline constexpr std::string_view kReadErrorDomain = "File";

// One answer of the scheme: the bytes, their MIME type and the text encoding WebKit is told.
struct Asset {
  std::string mimeType;
  std::string bytes;
  std::string encoding = "utf-8";
  std::filesystem::path file;  // what was read; empty for the in-memory script

  bool operator==(const Asset&) const = default;
};

// The MIME type of a path extension (without the dot), looked up case-insensitively. Only
// the frontend's own kinds are known; everything else is "application/octet-stream".
std::string_view mimeTypeForExtension(std::string_view extension);

// The path of a scheme URL, percent-decoded: "qevnative://app/a%20b?x" gives "/a b". The
// authority (`app`), query and fragment are dropped.
std::string decodedUrlPath(std::string_view url);

// The request path as a path relative to `dist`: "/" and "" become "index.html", empty pieces
// and every ".." piece are dropped, so the result can never leave the folder ("." pieces stay
// and name the folder itself; "" names `dist`, which `serve` answers with the start page).
std::string relativeAssetPath(std::string_view decodedPath);

// Answers requests of the `qevnative` scheme from the frontend folder. Client-side routes
// (no extension) and missing files get the start page; the configuration script lives in
// memory. Stateless after construction, so any thread may call `serve`.
class AssetScheme {
 public:
  AssetScheme(std::filesystem::path dist, std::string ossConfigScript);

  // `url` is the request's URL; empty means the request had none (error domain
  // "StaticAssetScheme", code 1). A file that cannot be read gives its errno in domain "File".
  Result<Asset> serve(std::string_view url) const;

  const std::filesystem::path& dist() const { return dist_; }

 private:
  std::filesystem::path dist_;
  std::string ossConfigScript_;
};

}  // namespace qev::app
