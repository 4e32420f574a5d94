// The test double of the service's panel: a loopback HTTP server answering like a v1 or v2
// panel for the demo account. It prints "port=<n>" as its first line once it listens.
// Command line and test endpoints: tests/support/README.md.

#include <signal.h>
#include <unistd.h>

#include <httplib.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "panel.h"

namespace {

using namespace fake_panel;

const char* kUsage =
    "usage: fake_panel [--port N] [--generation v1|v2] [--delay-ms N] [--unusable]\n"
    "                  [--banned] [--rate-limited] [--no-info-nodes] [--geo-rules]\n"
    "                  [--site-name NAME] [--subscribe-base URL]\n";

int usageError(const std::string& message) {
  std::fprintf(stderr, "fake_panel: %s\n%s", message.c_str(), kUsage);
  return 2;
}

std::optional<long> number(const std::string& text) {
  char* end = nullptr;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || end == nullptr || *end != '\0' || value < 0) return std::nullopt;
  return value;
}

int run(const std::vector<std::string>& args) {
  PanelSettings settings;
  int port = 0;
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string& arg = args[i];
    const auto value = [&]() -> std::optional<std::string> {
      if (i + 1 >= args.size()) return std::nullopt;
      return args[++i];
    };
    if (arg == "--port" || arg == "--delay-ms") {
      const auto text = value();
      const auto parsed = text ? number(*text) : std::nullopt;
      if (!parsed || (arg == "--port" && *parsed > 65535))
        return usageError("bad value for " + arg);
      (arg == "--port" ? port : settings.delayMs) = static_cast<int>(*parsed);
    } else if (arg == "--generation") {
      const auto text = value();
      if (text == "v1") {
        settings.generation = Generation::kV1;
      } else if (text == "v2") {
        settings.generation = Generation::kV2;
      } else {
        return usageError("--generation takes v1 or v2");
      }
    } else if (arg == "--site-name" || arg == "--subscribe-base") {
      const auto text = value();
      if (!text) return usageError(arg + " needs a value");
      (arg == "--site-name" ? settings.siteName : settings.subscribeBase) = *text;
    } else if (arg == "--unusable") {
      settings.unusable = true;
    } else if (arg == "--banned") {
      settings.banned = true;
    } else if (arg == "--rate-limited") {
      settings.rateLimited = true;
    } else if (arg == "--no-info-nodes") {
      settings.infoNodes = false;
    } else if (arg == "--geo-rules") {
      settings.geoRules = true;
    } else if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else {
      return usageError("unknown argument " + arg);
    }
  }

  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  Panel panel(settings);
  httplib::Server server;
  panel.install(server);
  server.set_keep_alive_max_count(1000);
  const int bound = port == 0 ? server.bind_to_any_port("127.0.0.1")
                              : (server.bind_to_port("127.0.0.1", port) ? port : -1);
  if (bound <= 0) {
    std::fprintf(stderr, "fake_panel: cannot listen on 127.0.0.1:%d\n", port);
    return 1;
  }
  std::thread([&server] { server.listen_after_bind(); }).detach();
  std::printf("port=%d\n", bound);
  std::fflush(stdout);

  int sig = 0;
  sigwait(&signals, &sig);
  // Open keep-alive connections would hold a graceful stop for seconds; nothing needs saving.
  std::fflush(stdout);
  _exit(0);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  return run(std::vector<std::string>(argv, argv + argc));
}
