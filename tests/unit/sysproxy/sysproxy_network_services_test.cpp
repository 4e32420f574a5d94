#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "base/strings.h"
#include "guard/crash_guard.h"
#include "recording_logger.h"
#include "sysproxy/network_services_backend.h"
#include "temp_home.h"

namespace qev::sysproxy {
namespace {

namespace fs = std::filesystem;
using Calls = std::vector<std::vector<std::string>>;

using test::RecordingLogger;

// A stand-in for a macOS tool: appends its arguments as one tab-separated line to `<name>.calls`,
// fails when its first two arguments match a tab-joined line of `<name>.fail`, answers
// "-listallnetworkservices" with the file `listing` and the exit status in `listing.status`, and
// "-getwebproxy <service>" with the file `webproxy-<service>` (a disabled proxy without one).
void writeFakeTool(const fs::path& dir, const std::string& name) {
  constexpr const char* kScript = R"sh(#!/bin/sh
for a in "$@"; do printf '%s\t' "$a"; done >> '@DIR@/@NAME@.calls'
printf '\n' >> '@DIR@/@NAME@.calls'
if [ "$1" = -listallnetworkservices ]; then
  cat '@DIR@/listing'
  exit "$(cat '@DIR@/listing.status' 2>/dev/null || echo 0)"
fi
if [ "$1" = -getwebproxy ]; then
  cat "@DIR@/webproxy-$2" 2>/dev/null || printf 'Enabled: No\nServer: \nPort: 0\n'
  exit 0
fi
if [ -f '@DIR@/@NAME@.fail' ] && grep -qxF -e "$(printf '%s\t%s' "$1" "$2")" '@DIR@/@NAME@.fail'
then exit 1
fi
exit 0
)sh";
  const std::string script =
      base::replaceAll(base::replaceAll(kScript, "@DIR@", dir.string()), "@NAME@", name);
  test::writeText(dir / name, script);
  fs::permissions(dir / name, fs::perms::owner_all);
}

Calls readCalls(const fs::path& file) {
  Calls calls;
  std::istringstream in(test::readText(file));
  for (std::string line; std::getline(in, line);) {
    std::vector<std::string> args;
    std::size_t start = 0;
    for (std::size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1) {
      args.push_back(line.substr(start, tab - start));
    }
    calls.push_back(std::move(args));
  }
  return calls;
}

constexpr const char* kListing =
    "An asterisk (*) denotes that a network service is disabled.\n"
    "Wi-Fi 2\n"
    "*Bluetooth PAN\n"
    "\n"
    "  Thunderbolt Bridge  \n";

class NetworkServicesBackendTest : public ::testing::Test {
 protected:
  void SetUp() override {
    writeFakeTool(dir_.path(), "networksetup");
    writeFakeTool(dir_.path(), "sysproxy");
    setListing(kListing);
  }

  void setListing(const std::string& text, int status = 0) {
    test::writeText(dir_.path() / "listing", text);
    test::writeText(dir_.path() / "listing.status", std::to_string(status));
  }
  void failOn(const std::string& tool, const std::string& first, const std::string& second) {
    std::string existing;
    if (fs::exists(dir_.path() / (tool + ".fail"))) {
      existing = test::readText(dir_.path() / (tool + ".fail"));
    }
    test::writeText(dir_.path() / (tool + ".fail"), existing + first + "\t" + second + "\n");
  }
  void removeHelper() { fs::remove(dir_.path() / "sysproxy"); }

  NetworkServicesBackend backend() {
    return NetworkServicesBackend(log_, dir_.path() / "sysproxy", dir_.path() / "networksetup");
  }
  Calls networksetupCalls() const { return readCalls(dir_.path() / "networksetup.calls"); }
  Calls helperCalls() const { return readCalls(dir_.path() / "sysproxy.calls"); }

  static Calls withListing(const Calls& perService) {
    Calls all{{"-listallnetworkservices"}};
    all.insert(all.end(), perService.begin(), perService.end());
    return all;
  }
  static Calls enableCommands(const std::string& service) {
    return {
        {"-setwebproxy", service, "127.0.0.1", "33210"},
        {"-setwebproxystate", service, "on"},
        {"-setsecurewebproxy", service, "127.0.0.1", "33210"},
        {"-setsecurewebproxystate", service, "on"},
        {"-setsocksfirewallproxy", service, "127.0.0.1", "33211"},
        {"-setsocksfirewallproxystate", service, "on"},
    };
  }
  static Calls concat(Calls a, const Calls& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  }

  test::TempDir dir_;
  RecordingLogger log_;
};

TEST_F(NetworkServicesBackendTest, EnableRunsHelperThenEveryCommandForEachEnabledService) {
  backend().enableSystemProxy();

  EXPECT_EQ(helperCalls(), (Calls{{"-stop"},
                                  {"-http", "127.0.0.1:33210"},
                                  {"-https", "127.0.0.1:33210"},
                                  {"-socks", "127.0.0.1:33211"}}));
  EXPECT_EQ(networksetupCalls(),
            withListing(concat(enableCommands("Wi-Fi 2"), enableCommands("Thunderbolt Bridge"))));
  EXPECT_EQ(log_.lines(), (std::vector<std::string>{
                              "native.sysproxy.enable: stop=true http=true https=true socks=true",
                              "native.networksetup.enable: Wi-Fi 2=true",
                              "native.networksetup.enable: Thunderbolt Bridge=true",
                          }));
}

TEST_F(NetworkServicesBackendTest, OneFailingCommandFailsOnlyItsServiceAndTheRestStillRuns) {
  failOn("networksetup", "-setsocksfirewallproxy", "Wi-Fi 2");
  failOn("networksetup", "-setwebproxystate", "Thunderbolt Bridge");
  removeHelper();
  auto b = backend();
  b.setSystemProxyWithNetworksetup(true);

  // Every command ran, including the SOCKS state after the failed SOCKS proxy.
  EXPECT_EQ(networksetupCalls(),
            withListing(concat(enableCommands("Wi-Fi 2"), enableCommands("Thunderbolt Bridge"))));
  EXPECT_EQ(log_.lines(), (std::vector<std::string>{
                              "native.networksetup.enable: Wi-Fi 2=false",
                              "native.networksetup.enable: Thunderbolt Bridge=false",
                          }));
}

// The crash guard's path on macOS: only a proxy that still points at the core is switched off.
TEST_F(NetworkServicesBackendTest, GuardSwitchesOffOnlyAProxyThatPointsAtTheCore) {
  struct Case {
    std::string webProxy;  // Thunderbolt Bridge's answer to -getwebproxy
    bool switchedOff;
  };
  const std::vector<Case> cases = {
      {"Enabled: Yes\nServer: 127.0.0.1\nPort: 33210\nAuthenticated Proxy Enabled: 0\n", true},
      {"Enabled: Yes\nServer: proxy.corp.example\nPort: 8080\n", false},
      {"Enabled: No\nServer: 127.0.0.1\nPort: 33210\n", false},
      {"Enabled: Yes\nServer: 127.0.0.1\nPort: 33211\n", false},
  };
  const auto profile = storage::Profile::forMacOS(test::environmentIn(dir_.path() / "home"));
  for (const auto& c : cases) {
    fs::remove(dir_.path() / "networksetup.calls");
    test::writeText(dir_.path() / "webproxy-Thunderbolt Bridge", c.webProxy);
    auto b = backend();
    guard::cleanUpAfterApp(b, profile, log_);

    const Calls calls = networksetupCalls();
    const bool switched = std::any_of(calls.begin(), calls.end(), [](const auto& call) {
      return call.size() == 3 && call[0] == "-setwebproxystate" && call[2] == "off";
    });
    EXPECT_EQ(switched, c.switchedOff) << c.webProxy;
    EXPECT_EQ(log_.lines().back(), std::string("native.guard.cleanup: systemProxyOff=") +
                                       (c.switchedOff ? "true" : "false"));
  }
}

}  // namespace
}  // namespace qev::sysproxy
