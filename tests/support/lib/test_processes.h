#pragma once

// Helpers the suites share for ports, processes and the test panel.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>

#include "base/json.h"
#include "temp_home.h"
#include "test_config.h"
#include "testing/doubles_harness.h"

namespace qev::test {

// The test panel's demo account and the fixed controller address of the cores the suites start.
inline constexpr const char* kDemoEmail = "demo@qev.test";
inline constexpr const char* kDemoPassword = "demo-password";
inline constexpr const char* kDemoToken = "5f3c9a7e2b1d4c8f9a6e3b2d1c4f7a9e";
inline constexpr const char* kController = "http://127.0.0.1:33212";

// Where suites leave screenshots and logs for a person to look at.
inline std::filesystem::path artifactsDir() {
  return std::filesystem::path(kStageDir).parent_path().parent_path() / "artifacts";
}

// A loopback port that nothing listens on right now: the kernel's pick for a bound socket.
inline int freeLoopbackPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  ::close(fd);
  return port;
}

// Whether a loopback port can be bound now.
inline bool portFree(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  int yes = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool free = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return free;
}

inline bool processAlive(int pid) {
  return ::kill(pid, 0) == 0;
}

// The command line of a process with its arguments separated by blanks.
inline std::string commandLineOf(int pid) {
  std::string text = readText("/proc/" + std::to_string(pid) + "/cmdline");
  for (char& c : text) {
    if (c == '\0') c = ' ';
  }
  return text;
}

inline std::string shellQuoted(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

inline bool exitedCleanly(const std::optional<int>& status) {
  return status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0;
}

// The test panel as a child process, on a port of its own choosing.
class PanelProcess {
 public:
  explicit PanelProcess(const std::filesystem::path& outputDir,
                        const std::string& generation = "v2")
      : child_(doubles::ChildProcess::Options{
            kFakePanel, {"--port", "0", "--generation", generation}, "", {}, outputDir}) {
    doubles::waitUntil([&] { return child_.stdoutText().find('\n') != std::string::npos; });
    const std::string first = child_.stdoutText();
    if (first.rfind("port=", 0) == 0) port_ = std::stoi(first.substr(5));
  }
  int port() const { return port_; }
  std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }
  Json requests() const { return Json::parse(doubles::httpGet(base() + "/__requests").body); }
  void forgetRequests() const {
    doubles::http(doubles::HttpCall{"DELETE", base() + "/__requests", std::nullopt, {}});
  }
  bool control(const Json& changes) const {
    return doubles::http(doubles::HttpCall{"POST",
                                           base() + "/__control",
                                           changes.dump(),
                                           {"Content-Type: application/json"}})
               .status == 200;
  }

 private:
  doubles::ChildProcess child_;
  int port_ = 0;
};

}  // namespace qev::test
