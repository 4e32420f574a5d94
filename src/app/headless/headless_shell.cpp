#include "app/headless/headless_shell.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <istream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <thread>

#include "base/executors.h"
#include "base/main_queue.h"
#include "bridge/diagnostic_log.h"
#include "bridge/native_bridge.h"
#include "guard/crash_guard.h"
#include "process/process_runner.h"

namespace qev::app {
namespace {

// Writes each answer as one JSON line and flushes it at once.
class JsonLinesSink final : public bridge::AnswerSink {
 public:
  explicit JsonLinesSink(std::ostream& out) : out_(out) {}

  void deliver(const bridge::Answer& answer) override {
    out_ << "{\"id\":" << dump(answer.id);
    if (answer.ok) {
      out_ << ",\"result\":" << dump(answer.value) << "}\n";
    } else {
      out_ << ",\"error\":" << dump(answer.message) << "}\n";
    }
    out_.flush();
  }

  // Events share the stream as {"event": name, "payload": value}.
  void push(const bridge::Event& event) override {
    out_ << "{\"event\":" << dump(event.name) << ",\"payload\":" << dump(event.payload) << "}\n";
    out_.flush();
  }

 private:
  static std::string dump(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
  }

  std::ostream& out_;
};

// Hands links to the desktop's default handler with xdg-open. The child runs on a pool thread so
// the main loop never waits for it; without xdg-open on PATH the link is only logged.
class XdgOpener {
 public:
  XdgOpener(std::filesystem::path logFile, std::string searchPath)
      : log_(std::move(logFile)), searchPath_(std::move(searchPath)) {}

  void open(const std::string& url) {
    pool_.post([this, url] {
      const auto program = findOnSearchPath("xdg-open");
      if (program.empty()) {
        log_.message("native.openExternal.unavailable: no handler");
        return;
      }
      if (!process::runProcess(program, {url})) {
        log_.message("native.openExternal.error: xdg-open failed");
      }
    });
  }

 private:
  std::string findOnSearchPath(std::string_view name) const {
    std::string_view rest = searchPath_;
    while (!rest.empty()) {
      const auto colon = rest.find(':');
      const auto folder = rest.substr(0, colon);
      rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
      if (folder.empty()) continue;
      const auto candidate = std::filesystem::path(folder) / name;
      if (::access(candidate.c_str(), X_OK) == 0) return candidate.string();
    }
    return {};
  }

  bridge::DiagnosticLog log_;
  std::string searchPath_;
  base::Executors pool_{1};  // declared last: stopped first, while the members above still live
};

// Written by the signal handler, read by the thread that ends the loop; a signal handler can
// reach nothing but process-wide state.
int signalPipe[2] = {-1, -1};

extern "C" void onTerminateSignal(int) {
  const char signal = 1;
  const int saved = errno;
  (void)!::write(signalPipe[1], &signal, 1);
  errno = saved;
}

// State shared with the reader and signal threads, which may outlive the loop.
struct LoopState {
  std::shared_ptr<base::ManualMainQueue> queue = std::make_shared<base::ManualMainQueue>();
  std::atomic<bool> inputEnded{false};
  std::atomic<bool> terminate{false};
};

void postLine(const std::shared_ptr<LoopState>& state, bridge::NativeBridge& bridge,
              std::ostream& err, std::string line) {
  state->queue->post([&bridge, &err, line = std::move(line)] {
    if (line.find_first_not_of(" \t\r") == std::string::npos) return;
    Json message = base::parseJson(line);
    if (message.is_discarded() || !message.is_object()) {
      // Never echoed: a rejected line may well carry a credential.
      err << "qev: skipped a line of " << line.size()
          << " bytes that is not a JSON object (or nests too deep)\n";
      return;
    }
    if (const auto channel = message.find("channel"); channel != message.end()) {
      if (!channel->is_string()) return;
      const auto body = message.find("body");
      bridge.receive(channel->get<std::string>(), body != message.end() ? *body : Json());
      return;
    }
    bridge.receive("nativeBridge", message);
  });
}

}  // namespace

int runHeadless(std::istream& in, std::ostream& out, std::ostream& err,
                const storage::Environment& environment, HeadlessOptions options) {
  // A handler rather than a blocked mask: a library thread started before this point may be
  // the one the kernel picks for the signal.
  if (process::openCloexecPipe(signalPipe)) {
    struct sigaction action {};
    action.sa_handler = onTerminateSignal;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
  }

  auto state = std::make_shared<LoopState>();
  auto profile = storage::Profile::forThisPlatform(environment);
  const char* searchPath = std::getenv("PATH");
  // Outlives the bridge, which calls it from the main queue.
  XdgOpener opener(profile.paths.log, searchPath ? searchPath : "");
  bridge::NativeBridge bridge(
      std::move(profile),
      bridge::ShellSeams{state->queue, [&opener](const std::string& url) { opener.open(url); }});
  auto sink = std::make_shared<JsonLinesSink>(out);
  bridge.setAnswerSink(sink);
  // Stood down when this function returns, after the shutdown below.
  const auto guard =
      guard::CrashGuard::engage(bridge.profile(), environment.executable, bridge.log());

  std::thread([state] {
    char signal = 0;
    while (::read(signalPipe[0], &signal, 1) < 0 && errno == EINTR) {
    }
    state->terminate = true;
    state->queue->post([] {});  // wake the loop
  }).detach();

  bridge.start();

  std::thread([state, &in, &bridge, &err] {
    std::string line;
    while (!state->terminate && std::getline(in, line)) postLine(state, bridge, err, line);
    state->queue->post([state] { state->inputEnded = true; });
  }).detach();

  using Clock = std::chrono::steady_clock;
  std::optional<Clock::time_point> drainDeadline;
  while (!state->terminate) {
    if (state->inputEnded) {
      if (!drainDeadline) drainDeadline = Clock::now() + options.drainBudget;
      if (bridge.commandsInFlight() == 0 || Clock::now() >= *drainDeadline) break;
    }
    state->queue->runOne(std::chrono::milliseconds(50));
  }
  state->queue->drain();
  bridge.shutdown();
  state->queue->drain();
  return 0;
}

}  // namespace qev::app
