// The test double of the proxy core: started like the core ("clash -d DIR -f FILE"), it reads
// the configuration the way the core does, refuses what the core refuses, holds the inbound
// ports and answers the controller API. Fault knobs come from FAKE_CORE_* variables; see
// tests/support/README.md.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "controller.h"
#include "core_log.h"
#include "flags.h"
#include "http_inbound.h"
#include "inbound_listeners.h"
#include "json_lines.h"
#include "knobs.h"
#include "runtime.h"

namespace {

namespace fs = std::filesystem;
using namespace fake_core;

void writeAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n <= 0) return;
    done += static_cast<std::size_t>(n);
  }
}

std::optional<std::string> decodeBase64(const std::string& text) {
  std::string out;
  int buffer = 0;
  int bits = 0;
  for (char c : text) {
    int value;
    if (c >= 'A' && c <= 'Z') {
      value = c - 'A';
    } else if (c >= 'a' && c <= 'z') {
      value = c - 'a' + 26;
    } else if (c >= '0' && c <= '9') {
      value = c - '0' + 52;
    } else if (c == '+' || c == '-') {
      value = 62;
    } else if (c == '/' || c == '_') {
      value = 63;
    } else if (c == '=' || c == '\n' || c == '\r') {
      continue;
    } else {
      return std::nullopt;
    }
    buffer = (buffer << 6) | value;
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((buffer >> bits) & 0xff));
    }
  }
  return out;
}

// Waits `ms` while watching the blocked signals; false when SIGINT or SIGTERM arrived.
bool pause(int ms, const sigset_t& signals) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  for (;;) {
    const auto left = deadline - std::chrono::steady_clock::now();
    if (left <= std::chrono::steady_clock::duration::zero()) return true;
    const auto nanos = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
    timespec wait{static_cast<time_t>(nanos / 1000000000), static_cast<long>(nanos % 1000000000)};
    const int sig = sigtimedwait(&signals, nullptr, &wait);
    if (sig == SIGINT || sig == SIGTERM) return false;
  }
}

[[noreturn]] void exitNow(int status) {
  std::fflush(stdout);
  std::fflush(stderr);
  _exit(status);
}

fs::path absoluteFrom(const fs::path& base, const fs::path& path) {
  return path.is_absolute() ? path : base / path;
}

int run(const std::vector<std::string>& args) {
  const FlagParse parsed = parseFlags(args);
  if (!parsed.flags) {
    writeAll(STDERR_FILENO, parsed.message);
    return parsed.exitCode;
  }
  const Flags& flags = *parsed.flags;
  if (flags.version) {
    std::printf("Mihomo Meta v1.19.0 linux amd64 with go1.23.0 test-double\n");
    return 0;
  }
  const Knobs knobs = knobsFromEnvironment();

  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  if (knobs.exitAtStart) {
    writeAll(STDERR_FILENO, knobs.startupStderr());
    return *knobs.exitAtStart;
  }

  std::error_code ec;
  const fs::path cwd = fs::current_path(ec);
  LaunchContext launch;
  launch.argv = args;
  if (flags.homeDir.empty()) {
    const char* home = std::getenv("HOME");
    launch.homeDir = fs::path(home ? home : "/") / ".config" / "mihomo";
  } else {
    launch.homeDir = absoluteFrom(cwd, flags.homeDir);
  }
  launch.configFile = flags.configFile.empty() ? launch.homeDir / "config.yaml"
                                               : absoluteFrom(cwd, flags.configFile);
  if (!flags.secret.empty()) launch.secretOverride = flags.secret;

  CoreLog log;
  if (flags.configText.empty()) {
    if (!fs::exists(launch.homeDir) && !fs::create_directories(launch.homeDir, ec)) {
      log.fatal("Initial configuration directory error: can't create config directory " +
                launch.homeDir.string() + ": " + ec.message());
      return 1;
    }
    if (!fs::exists(launch.configFile)) {
      log.info("Can't find config, create a initial config file");
      std::ofstream file(launch.configFile, std::ios::binary);
      file << "mixed-port: 7890";
      if (!file) {
        log.fatal("Initial configuration directory error: can't create file " +
                  launch.configFile.string());
        return 1;
      }
    }
  }

  JsonLinesFile configLog(knobs.configLog);
  JsonLinesFile requestLog(knobs.requestLog);
  InboundListeners listeners(log);
  ConnectionTable connections;
  CoreRuntime runtime(launch, knobs, log, listeners, configLog);
  InboundContext inbound{connections, log, [&runtime] { return runtime.route(); }};
  listeners.setHttpClientHandler([&inbound](int client) { serveHttpProxyClient(client, inbound); });

  LoadResult loaded;
  if (!flags.configText.empty()) {
    const auto text = decodeBase64(flags.configText);
    loaded = text ? runtime.loadText(*text, flags.test ? "test" : "start")
                  : LoadResult{std::nullopt, "illegal base64 data"};
  }

  if (flags.test) {
    if (flags.configText.empty()) loaded = runtime.loadFile({}, "test");
    if (!loaded.config) {
      log.error(loaded.error);
      std::printf("configuration file %s test failed\n", launch.configFile.c_str());
      return 1;
    }
    std::printf("configuration file %s test is successful\n", launch.configFile.c_str());
    return 0;
  }

  const auto started = std::chrono::steady_clock::now();
  log.info("Start initial configuration in progress");
  if (!pause(knobs.startDelayMs, signals)) exitNow(0);
  if (flags.configText.empty()) loaded = runtime.loadFile({}, "start");
  if (!loaded.config) {
    log.fatal("Parse config error: " + loaded.error);
    exitNow(1);
  }

  Controller controller(runtime, knobs, log, requestLog, connections);
  const std::string controllerAddress =
      flags.extCtl.empty() ? loaded.config->externalController : flags.extCtl;
  // The controller listens slightly before the configuration is applied, as in the core.
  if (!controllerAddress.empty()) controller.start(controllerAddress);
  if (!pause(knobs.applyDelayMs, signals)) exitNow(0);
  runtime.apply(*loaded.config, true);
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - started);
  log.info("Initial configuration complete, total time: " + std::to_string(took.count()) + "ms");

  for (;;) {
    int sig = 0;
    if (sigwait(&signals, &sig) != 0) continue;
    if (sig == SIGHUP) {
      if (const auto error = runtime.reloadFile({}, true, "sighup")) {
        log.error("Parse config error: " + *error);
      }
      continue;
    }
    // SIGINT or SIGTERM: a clean exit. Open controller connections are simply dropped.
    listeners.closeAll();
    exitNow(0);
  }
}

}  // namespace

int main(int argc, char** argv) {
  return run(std::vector<std::string>(argv, argv + argc));
}
