#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "process/process_runner.h"
#include "recording_logger.h"
#include "sysproxy/gsettings_backend.h"
#include "temp_home.h"

namespace qev::sysproxy {
namespace {

using test::RecordingLogger;

namespace fs = std::filesystem;

std::string systemPath() {
  const char* path = std::getenv("PATH");
  return path != nullptr ? path : "/usr/bin:/bin";
}

// The real gsettings on a private keyfile backend: the child processes inherit this process's
// environment, so nothing reaches the desktop session's settings.
class GSettingsBackendTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto real = findExecutable("gsettings", systemPath());
    if (!real) GTEST_SKIP() << "gsettings is not installed";
    gsettings_ = real->string();
    ::setenv("GSETTINGS_BACKEND", "keyfile", 1);
    ::setenv("XDG_CONFIG_HOME", (dir_.path() / "config").c_str(), 1);
  }

  std::string get(const std::string& schema, const std::string& key) const {
    const auto out = process::runProcessOutput(gsettings_, {"get", schema, key});
    EXPECT_TRUE(out.ok) << out.output;
    std::string value = out.output;
    while (!value.empty() && (value.back() == '\n' || value.back() == '\r')) value.pop_back();
    return value;
  }
  std::string mode() const { return get("org.gnome.system.proxy", "mode"); }

  void expectEndpoints() const {
    EXPECT_EQ(get("org.gnome.system.proxy.http", "host"), "'127.0.0.1'");
    EXPECT_EQ(get("org.gnome.system.proxy.http", "port"), "33210");
    EXPECT_EQ(get("org.gnome.system.proxy.https", "host"), "'127.0.0.1'");
    EXPECT_EQ(get("org.gnome.system.proxy.https", "port"), "33210");
    EXPECT_EQ(get("org.gnome.system.proxy.socks", "host"), "'127.0.0.1'");
    EXPECT_EQ(get("org.gnome.system.proxy.socks", "port"), "33211");
  }

  test::TempDir dir_;
  RecordingLogger log_;
  std::string gsettings_;
};

TEST_F(GSettingsBackendTest, EnableSetsManualModeAndEndpointsDisableOnlyTheMode) {
  ASSERT_EQ(mode(), "'none'");
  GSettingsBackend backend(log_);

  backend.enableSystemProxy();
  EXPECT_EQ(mode(), "'manual'");
  expectEndpoints();
  // The keyfile backend wrote the private file, not the session's settings.
  EXPECT_TRUE(fs::exists(dir_.path() / "config" / "glib-2.0" / "settings" / "keyfile"));

  backend.disableSystemProxy();
  EXPECT_EQ(mode(), "'none'");
  expectEndpoints();

  // Switching off again is not compared with the current state: it runs and succeeds.
  backend.disableSystemProxy();
  EXPECT_EQ(log_.lines(), (std::vector<std::string>{"native.gsettings.enable: ok=true",
                                                    "native.gsettings.disable: ok=true",
                                                    "native.gsettings.disable: ok=true"}));
}

TEST_F(GSettingsBackendTest, MissingGsettingsIsLoggedAndChangesNothing) {
  const fs::path empty = dir_.path() / "empty-bin";
  fs::create_directories(empty);
  GSettingsBackend backend(log_, empty.string());

  backend.enableSystemProxy();
  backend.disableSystemProxy();
  EXPECT_EQ(mode(), "'none'");
  EXPECT_EQ(log_.lines(),
            (std::vector<std::string>{"native.gsettings.missing", "native.gsettings.missing"}));
}

TEST_F(GSettingsBackendTest, OneRejectedCommandFailsTheResultButTheOthersStillApply) {
  // A wrapper ahead of the real gsettings on the search path: records each call, refuses the
  // HTTPS port, hands everything else to the real program.
  const fs::path bin = dir_.path() / "wrapper-bin";
  const fs::path calls = dir_.path() / "calls";
  test::writeText(bin / "gsettings",
                  "#!/bin/sh\n"
                  "echo \"$*\" >> '" +
                      calls.string() +
                      "'\n"
                      "[ \"$2 $3\" = 'org.gnome.system.proxy.https port' ] && exit 1\n"
                      "exec '" +
                      gsettings_ + "' \"$@\"\n");
  fs::permissions(bin / "gsettings", fs::perms::owner_all);
  GSettingsBackend backend(log_, bin.string() + ":" + systemPath());

  backend.enableSystemProxy();
  EXPECT_EQ(test::readText(calls),
            "set org.gnome.system.proxy.http host '127.0.0.1'\n"
            "set org.gnome.system.proxy.http port 33210\n"
            "set org.gnome.system.proxy.https host '127.0.0.1'\n"
            "set org.gnome.system.proxy.https port 33210\n"
            "set org.gnome.system.proxy.socks host '127.0.0.1'\n"
            "set org.gnome.system.proxy.socks port 33211\n"
            "set org.gnome.system.proxy mode 'manual'\n");
  EXPECT_EQ(mode(), "'manual'");
  EXPECT_EQ(get("org.gnome.system.proxy.socks", "port"), "33211");
  EXPECT_EQ(get("org.gnome.system.proxy.https", "port"), "0");
  EXPECT_EQ(log_.lines(), (std::vector<std::string>{"native.gsettings.enable: ok=false"}));
}

}  // namespace
}  // namespace qev::sysproxy
