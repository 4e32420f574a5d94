#include "app/asset_scheme.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "temp_home.h"

namespace qev::app {
namespace {

namespace fs = std::filesystem;
using test::TempDir;
using test::writeText;

constexpr const char* kIndex = "<!doctype html><title>start</title>";
constexpr const char* kScript = "window.__ossConfig = 1; // 配置";

// A dist folder with a start page, assets of several kinds and decoys around it.
class AssetSchemeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    writeText(dist_ / "index.html", kIndex);
    writeText(dist_ / "assets/app.js", "console.log('app')");
    writeText(dist_ / "assets/LOGO.PNG", "\x89PNG\r\n\x1a\n");
    writeText(dist_ / "assets/font.woff2", "wOF2");
    writeText(dist_ / "assets/style.CSS", "body{}");
    writeText(dist_ / "assets/photo.JPEG", "jpeg");
    writeText(dist_ / "etc/hosts", "inside dist");
    writeText(dist_ / "etc/hosts.json", "{\"inside\": true}");
    writeText(dist_ / "qevjs-oss-config.js", "on disk at the top level");
    writeText(dist_ / "sub/qevjs-oss-config.js", "on disk in a sub folder");
    writeText(dist_ / "a b/c.json", "{}");
    writeText(root_.path() / "secret.txt", "outside dist");
  }

  Asset serve(const std::string& url) const {
    auto result = scheme_.serve(url);
    EXPECT_TRUE(result.ok()) << url << ": " << (result.ok() ? "" : result.error().description);
    return result.ok() ? result.value() : Asset{};
  }

  TempDir root_;
  fs::path dist_ = root_.path() / "dist";
  AssetScheme scheme_{dist_, kScript};
};

struct ServeCase {
  std::string name;
  std::string url;
  std::string mimeType;
  std::string servedFile;  // relative to dist
  friend void PrintTo(const ServeCase& c, std::ostream* os) { *os << c.name; }
};

class AssetSchemeServeTest : public AssetSchemeTest,
                             public ::testing::WithParamInterface<ServeCase> {};

TEST_P(AssetSchemeServeTest, ServesTheExpectedFileWithItsType) {
  const auto& c = GetParam();
  const Asset asset = serve(c.url);
  EXPECT_EQ(asset.file, dist_ / c.servedFile);
  EXPECT_EQ(asset.mimeType, c.mimeType);
  EXPECT_EQ(asset.encoding, "utf-8");
  EXPECT_EQ(asset.bytes, test::readText(dist_ / c.servedFile));
}

INSTANTIATE_TEST_SUITE_P(
    Routes, AssetSchemeServeTest,
    ::testing::Values(
        ServeCase{"StartPage", "qevnative://app/", "text/html", "index.html"},
        ServeCase{"StartPageWithoutSlash", "qevnative://app", "text/html", "index.html"},
        ServeCase{"ExtensionlessRoute", "qevnative://app/settings/profile", "text/html",
                  "index.html"},
        ServeCase{"RouteWithQueryAndFragment", "qevnative://app/login?next=/x#top", "text/html",
                  "index.html"},
        ServeCase{"ScriptAsset", "qevnative://app/assets/app.js", "application/javascript",
                  "assets/app.js"},
        ServeCase{"DotDotWithoutExtensionIsARoute", "qevnative://app/../../etc/hosts", "text/html",
                  "index.html"},
        ServeCase{"DotDotResolvesInsideDist", "qevnative://app/../../etc/hosts.json",
                  "application/json", "etc/hosts.json"},
        ServeCase{"DotDotCannotReachOutside", "qevnative://app/../secret.txt", "text/html",
                  "index.html"},
        ServeCase{"EncodedDotDotStaysInsideDist", "qevnative://app/%2E%2E/%2e%2e/secret.txt",
                  "text/html", "index.html"},
        ServeCase{"EncodedSlashesAreSeparators", "qevnative://app/..%2F..%2Fsecret.txt",
                  "text/html", "index.html"},
        ServeCase{"MissingImageGetsStartPage", "qevnative://app/assets/missing.png", "text/html",
                  "index.html"},
        ServeCase{"UpperCasePng", "qevnative://app/assets/LOGO.PNG", "image/png",
                  "assets/LOGO.PNG"},
        ServeCase{"UpperCaseCss", "qevnative://app/assets/style.CSS", "text/css",
                  "assets/style.CSS"},
        ServeCase{"UpperCaseJpeg", "qevnative://app/assets/photo.JPEG", "image/jpeg",
                  "assets/photo.JPEG"},
        ServeCase{"FontIsOctetStream", "qevnative://app/assets/font.woff2",
                  "application/octet-stream", "assets/font.woff2"},
        ServeCase{"PercentEncodedBlank", "qevnative://app/a%20b/c.json", "application/json",
                  "a b/c.json"},
        ServeCase{"DoubledSlashes", "qevnative://app//assets///app.js", "application/javascript",
                  "assets/app.js"},
        ServeCase{"OssConfigBelowTopLevelComesFromDisk", "qevnative://app/sub/qevjs-oss-config.js",
                  "application/javascript", "sub/qevjs-oss-config.js"},
        ServeCase{"EncodedNulIsAMissingFile", "qevnative://app/etc/hosts%00.png", "text/html",
                  "index.html"}),
    [](const auto& info) { return info.param.name; });

TEST_F(AssetSchemeTest, OssConfigAtTheTopLevelComesFromMemoryEvenWhenDistHasOne) {
  for (const std::string url :
       {"qevnative://app/qevjs-oss-config.js", "qevnative://app/../qevjs-oss-config.js?t=1",
        "qevnative://app//qevjs-oss-config.js"}) {
    const Asset asset = serve(url);
    EXPECT_EQ(asset.bytes, kScript) << url;
    EXPECT_EQ(asset.mimeType, "application/javascript") << url;
    EXPECT_EQ(asset.encoding, "utf-8") << url;
    EXPECT_TRUE(asset.file.empty()) << url;
  }
}

TEST(AssetPathTest, RelativePathsNeverClimbOutOfDist) {
  struct Case {
    const char* path;
    const char* relative;
  };
  const std::vector<Case> cases = {
      {"", "index.html"},
      {"/", "index.html"},
      {"/../../etc/hosts", "etc/hosts"},
      {"/a/../b", "a/b"},
      {"/./a/.hidden/x..y", "./a/.hidden/x..y"},
      {"/..", ""},
      {"//a//b/", "a/b"},
  };
  for (const auto& c : cases) EXPECT_EQ(relativeAssetPath(c.path), c.relative) << c.path;
}

}  // namespace
}  // namespace qev::app
