#include "app/headless/headless_shell.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <istream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <thread>

#include "base/main_queue.h"
#include "bridge/native_bridge.h"

namespace qev::app {
namespace {

// Writes each answer as one JSON line and flushes it at once.
class JsonLinesSink final : public bridge::AnswerSink {
 public:
  explicit JsonLinesSink(std::ostream& out) : out_(out) {}

  void deliver(const bridge::Answer& answer) override {
    const auto dump = [](const Json& v) { return v.dump(-1, ' ', false, Json::error_handler_t::replace); };
    out_ << "{\"id\":" << dump(answer.id);
    if (answer.ok) {
      out_ << ",\"result\":" << dump(answer.value) << "}\n";
    } else {
      out_ << ",\"error\":" << dump(answer.message) << "}\n";
    }
    out_.flush();
  }

 private:
  std::ostream& out_;
};

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
    Json message = Json::parse(line, nullptr, false);
    if (message.is_discarded() || !message.is_object()) {
      err << "qev: skipped a line that is not a JSON object: " << line.substr(0, 200) << '\n';
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
  // Signals go to one waiting thread; every other thread starts with them blocked.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  auto state = std::make_shared<LoopState>();
  bridge::NativeBridge bridge(storage::Profile::forThisPlatform(environment),
                              bridge::ShellSeams{state->queue, nullptr});
  auto sink = std::make_shared<JsonLinesSink>(out);
  bridge.setAnswerSink(sink);

  std::thread([state, signals] {
    int received = 0;
    if (sigwait(&signals, &received) == 0) {
      state->terminate = true;
      state->queue->post([] {});  // wake the loop
    }
  }).detach();

  bridge.restoreProxyIfNeeded();

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
