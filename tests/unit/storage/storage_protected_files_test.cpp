#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "storage/protected_files.h"
#include "temp_home.h"

namespace qev::test {
namespace {

using storage::base64Decode;
using storage::base64Encode;
using storage::decodeProtected;
using storage::encodeProtected;
using storage::transformConfigData;

TEST(StorageMaskTest, KnownBytesOfTheStream) {
  // Masking zeros exposes the stream itself.
  const std::string stream = transformConfigData(std::string(40, '\0'), "user1");
  ASSERT_EQ(stream.size(), 40u);
  EXPECT_EQ(static_cast<unsigned char>(stream[0]), 'z');               // K[0] alone
  EXPECT_EQ(static_cast<unsigned char>(stream[1]), ('k' + 31) % 256);  // K[1] + 31
  // Index 30 with a 29-byte key: K[1] + 930 mod 256 = K[1] + 162.
  EXPECT_EQ(static_cast<unsigned char>(stream[30]), ('k' + 162) % 256);
}

TEST(StorageProtectedFormatTest, IsTheHeaderAndOneLineOfBase64) {
  const std::string payload = "mixed-port: 7890\nproxies: []\n";
  const std::string file = encodeProtected(payload, "tester");
  ASSERT_TRUE(file.starts_with("QEVJS1\n"));
  const std::string body = file.substr(7);
  EXPECT_EQ(
      body.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/="),
      std::string::npos);
  EXPECT_EQ(base64Decode(body), transformConfigData(payload, "tester"));
  EXPECT_EQ(decodeProtected(file, "tester"), payload);
  EXPECT_EQ(encodeProtected("", "tester"), "QEVJS1\n");
}

TEST(StorageProtectedFormatTest, ReaderFallBacks) {
  const std::string payload = "port: 1\n";
  const std::string body = base64Encode(transformConfigData(payload, "tester"));
  const std::string half = body.substr(0, body.size() / 2);
  struct Case {
    const char* what;
    std::string file;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"header only", "QEVJS1\n", ""},
      {"trailing CR LF", "QEVJS1\n" + body + "\r\n", payload},
      {"blanks around", "QEVJS1\n  " + body + " \t", payload},
      {"line break inside", "QEVJS1\n" + half + "\n" + body.substr(half.size()),
       "QEVJS1\n" + half + "\n" + body.substr(half.size())},
      {"plain YAML", "proxies:\n  - name: a\n", "proxies:\n  - name: a\n"},
      {"header without its line feed", "QEVJS1" + body, "QEVJS1" + body},
      {"characters outside the alphabet", "QEVJS1\n" + body + "!", "QEVJS1\n" + body + "!"},
      {"not UTF-8", "QEVJS1\n" + body + "\xff", "QEVJS1\n" + body + "\xff"},
      {"binary plain file", std::string("\x00\x01\xfe", 3), std::string("\x00\x01\xfe", 3)},
  };
  for (const auto& c : cases) EXPECT_EQ(decodeProtected(c.file, "tester"), c.expected) << c.what;
}

class StorageProtectedFilesTest : public ::testing::Test {
 protected:
  TempDir dir;
  storage::Profile profile = storage::Profile::forLinux(environmentIn(dir.path()));
  const storage::Paths& paths = profile.paths;
  storage::ProtectedFiles files{paths, "tester"};

  void SetUp() override { std::filesystem::create_directories(paths.appSupport); }
};

TEST_F(StorageProtectedFilesTest, WritesMaskedOwnerOnlyAndReadsBack) {
  const std::string secret = "proxies:\n  - {name: a, server: s.example, password: hunter2}\n";
  writeText(paths.protectedRawConfig, "old");
  std::filesystem::permissions(paths.protectedRawConfig, std::filesystem::perms(0644));

  ASSERT_FALSE(files.writeProtectedData(secret, paths.protectedRawConfig));
  const std::string onDisk = readText(paths.protectedRawConfig);
  EXPECT_TRUE(onDisk.starts_with("QEVJS1\n"));
  EXPECT_EQ(onDisk.find("hunter2"), std::string::npos);
  EXPECT_EQ(permissionsOf(paths.protectedRawConfig), 0600u);
  EXPECT_EQ(files.readProtectedData(paths.protectedRawConfig), secret);

  ASSERT_FALSE(files.writeProtectedString("mode: rule\n", paths.protectedConfig));
  EXPECT_EQ(files.readProtectedData(paths.protectedConfig), "mode: rule\n");

  // Another account (or a renamed one) gets bytes of the right length, not an error.
  const storage::ProtectedFiles otherUser{paths, "someone-else"};
  const auto other = otherUser.readProtectedData(paths.protectedRawConfig);
  ASSERT_TRUE(other);
  EXPECT_EQ(other->size(), secret.size());
  EXPECT_NE(*other, secret);
}

TEST_F(StorageProtectedFilesTest, UnreadableIsNothingAndUnwritableIsAnError) {
  EXPECT_FALSE(files.readProtectedData(paths.appSupport / "missing.dat"));
  std::filesystem::create_directories(paths.protectedConfig);  // a folder where a file belongs
  EXPECT_FALSE(files.readProtectedData(paths.protectedConfig));
  EXPECT_TRUE(files.writeProtectedData("x", paths.protectedConfig));
  EXPECT_TRUE(files.writeProtectedData("x", paths.appSupport / "no" / "such" / "folder.dat"));
  EXPECT_TRUE(storage::ProtectedFiles::protectFile(paths.appSupport / "missing"));
}

}  // namespace
}  // namespace qev::test
