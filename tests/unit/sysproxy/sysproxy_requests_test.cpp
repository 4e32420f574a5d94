#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/executors.h"
#include "recording_logger.h"
#include "storage/profile.h"
#include "storage/selection_memory.h"
#include "storage/settings_store.h"
#include "sysproxy/system_proxy_requests.h"
#include "temp_home.h"

namespace qev::sysproxy {
namespace {

namespace fs = std::filesystem;

// One ordered record of what the parts did: persists, switches and log lines.
using Journal = test::RecordingLogger;

// Records each switch; while held, a switch waits inside the backend until released, so tests
// can queue requests behind a running one.
class GatedBackend final : public SystemProxyBackend {
 public:
  explicit GatedBackend(const Journal& journal) : journal_(journal) {}

  void enableSystemProxy() override { run(true); }
  void disableSystemProxy() override { run(false); }
  bool pointsAtCore() override { return pointing_; }
  void setPointing(bool pointing) { pointing_ = pointing; }
  // Whether a switch ever began while another was still running.
  bool overlapped() const { return overlapped_; }

  void hold() {
    std::lock_guard lock(mutex_);
    held_ = true;
  }
  void release() {
    std::lock_guard lock(mutex_);
    held_ = false;
    changed_.notify_all();
  }
  void waitUntilRunning(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return started_ >= count; });
  }
  std::vector<bool> switches() const {
    std::lock_guard lock(mutex_);
    return switches_;
  }
  std::vector<std::thread::id> threads() const {
    std::lock_guard lock(mutex_);
    return threads_;
  }

 private:
  void run(bool enabled) {
    journal_.message(enabled ? "switch:on" : "switch:off");
    std::unique_lock lock(mutex_);
    if (running_++ > 0) overlapped_ = true;
    switches_.push_back(enabled);
    threads_.push_back(std::this_thread::get_id());
    ++started_;
    changed_.notify_all();
    changed_.wait(lock, [&] { return !held_; });
    --running_;
  }

  const Journal& journal_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool held_ = false;
  std::size_t started_ = 0;
  int running_ = 0;
  std::atomic<bool> overlapped_{false};
  std::atomic<bool> pointing_{false};
  std::vector<bool> switches_;
  std::vector<std::thread::id> threads_;
};

// Counts completions so a test can wait for all of its requests.
class CompletionCounter {
 public:
  SystemProxyRequests::Completion completion() {
    return [this] {
      std::lock_guard lock(mutex_);
      ++done_;
      changed_.notify_all();
    };
  }
  void waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return done_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t done_ = 0;
};

class SystemProxyRequestsTest : public ::testing::Test {
 protected:
  ~SystemProxyRequestsTest() override { executors_.stop(); }

  // Builds the requests with a backend that journals, persisting into the journal.
  void build(bool savedWish) {
    auto backend = std::make_unique<GatedBackend>(journal_);
    backend_ = backend.get();
    requests_ = std::make_unique<SystemProxyRequests>(
        std::move(backend),
        [this](bool enabled) { journal_.message(enabled ? "persist:on" : "persist:off"); },
        executors_.makeSerialQueue("qev.native.systemProxy.apply"), journal_, savedWish);
  }

  base::Executors executors_{4};
  Journal journal_;
  GatedBackend* backend_ = nullptr;
  std::unique_ptr<SystemProxyRequests> requests_;
  CompletionCounter counter_;
};

TEST_F(SystemProxyRequestsTest, RequestsQueuedBehindARunningSwitchAreSkippedButTheLatest) {
  build(false);
  backend_->hold();
  requests_->requestSystemProxy(true, "startProxy.confirm", counter_.completion());
  backend_->waitUntilRunning(1);

  requests_->requestSystemProxy(false, "stopProxy");  // a request without a completion
  EXPECT_FALSE(requests_->isSystemProxyDesired());
  requests_->requestSystemProxy(true, "setProxy", counter_.completion());
  EXPECT_TRUE(requests_->isSystemProxyDesired());
  backend_->release();
  // The queue is serial: the last completion comes after every earlier decision.
  counter_.waitFor(2);

  // Each wish was saved when it was made, before its switch could run.
  EXPECT_EQ(journal_.lines(), (std::vector<std::string>{
                                  "persist:on",
                                  "switch:on",
                                  "persist:off",
                                  "persist:on",
                                  "native.systemProxy.applied: startProxy.confirm "
                                  "enabled=true revision=1",
                                  "native.systemProxy.skip: stopProxy enabled=false revision=2",
                                  "switch:on",
                                  "native.systemProxy.applied: setProxy enabled=true revision=3",
                              }));
}

TEST_F(SystemProxyRequestsTest, ShutdownWaitsForTheRunningSwitchEndsOffAndRefusesLaterWishes) {
  using namespace std::chrono_literals;
  build(false);
  backend_->hold();
  requests_->requestSystemProxy(true, "startProxy.confirm", counter_.completion());
  backend_->waitUntilRunning(1);
  requests_->requestSystemProxy(true, "setProxy", counter_.completion());

  std::thread releaser([this] {
    std::this_thread::sleep_for(100ms);
    backend_->release();
  });
  EXPECT_TRUE(requests_->shutdown(10s));
  releaser.join();
  requests_->requestSystemProxy(true, "late", counter_.completion());
  counter_.waitFor(3);

  EXPECT_FALSE(requests_->isSystemProxyDesired());
  EXPECT_FALSE(backend_->overlapped());
  EXPECT_EQ(backend_->switches(), (std::vector<bool>{true, false}));
  EXPECT_EQ(journal_.linesStartingWith("persist:"),
            (std::vector<std::string>{"persist:on", "persist:on", "persist:off"}));
  EXPECT_EQ(journal_.linesStartingWith("native.systemProxy.skip: "),
            std::vector<std::string>{"native.systemProxy.skip: setProxy enabled=true revision=2"});
  EXPECT_EQ(journal_.linesStartingWith("native.systemProxy.refused: "),
            std::vector<std::string>{"native.systemProxy.refused: late (quitting)"});
  // Quitting again touches nothing.
  EXPECT_FALSE(requests_->shutdown(10s));
  EXPECT_EQ(backend_->switches().size(), 2u);
}

TEST_F(SystemProxyRequestsTest, RepairSwitchesOffOnlyAProxyPointingAtANonListeningCore) {
  struct Case {
    bool pointing;
    bool served;
    bool switched;
  };
  for (const Case c :
       {Case{true, false, true}, Case{true, true, false}, Case{false, false, false}}) {
    build(false);
    backend_->setPointing(c.pointing);
    CompletionCounter done;
    requests_->repairIfStale([&c] { return c.served; }, done.completion());
    done.waitFor(1);
    EXPECT_EQ(backend_->switches(), c.switched ? std::vector<bool>{false} : std::vector<bool>{});
    EXPECT_EQ(journal_.linesStartingWith("native.systemProxy.repair").size(), c.switched ? 1u : 0u);
    journal_.clear();
  }
}

TEST_F(SystemProxyRequestsTest, SuspendSwitchesOffButKeepsTheSavedWish) {
  build(true);
  requests_->suspend("coreStopped", counter_.completion());
  counter_.waitFor(1);
  EXPECT_FALSE(requests_->isSystemProxyDesired());
  EXPECT_EQ(backend_->switches(), std::vector<bool>{false});
  EXPECT_TRUE(journal_.linesStartingWith("persist:").empty());
  // Connecting again works as usual.
  requests_->requestSystemProxy(true, "startProxy.confirm", counter_.completion());
  counter_.waitFor(2);
  EXPECT_EQ(backend_->switches(), (std::vector<bool>{false, true}));
  EXPECT_EQ(journal_.linesStartingWith("persist:"), std::vector<std::string>{"persist:on"});
}

// Many callers on several threads: whatever the interleaving, the wish with the highest revision
// is the one switched last, the one left in the settings file, and it is applied exactly once.
TEST(SystemProxyRequestsStress, LastWishOfManyThreadsIsAppliedOnceAndSaved) {
  test::TempDir dir;
  const auto profile = storage::Profile::forLinux(test::environmentIn(dir.path()));
  fs::create_directories(profile.paths.appSupport);
  Journal journal;
  storage::SelectionMemory selection;
  storage::SettingsStore settings(profile.paths, selection, journal);

  base::Executors executors(4);
  auto backend = std::make_unique<GatedBackend>(journal);
  GatedBackend& switches = *backend;
  SystemProxyRequests requests(
      std::move(backend), [&settings](bool enabled) { settings.persistProxyEnabled(enabled); },
      executors.makeSerialQueue("qev.native.systemProxy.apply"), journal, false);

  constexpr int kThreads = 4;
  constexpr int kPerThread = 250;
  CompletionCounter counter;
  std::vector<std::thread> callers;
  for (int t = 0; t < kThreads; ++t) {
    callers.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(t) * 7919u + 1u);
      for (int i = 0; i < kPerThread; ++i) {
        requests.requestSystemProxy(random() % 2 == 0, "t" + std::to_string(t),
                                    counter.completion());
      }
    });
  }
  for (auto& caller : callers) caller.join();
  counter.waitFor(kThreads * kPerThread);
  executors.stop();

  const bool finalWish = requests.isSystemProxyDesired();
  const Json saved = settings.readSettings();
  ASSERT_TRUE(saved.contains("proxyEnabled"));
  EXPECT_EQ(saved["proxyEnabled"].get<bool>(), finalWish);
  ASSERT_FALSE(switches.switches().empty());
  EXPECT_EQ(switches.switches().back(), finalWish);

  // Every revision was decided exactly once; the applied ones in increasing order, ending with
  // the last.
  const auto applied = journal.linesStartingWith("native.systemProxy.applied: ");
  const auto skipped = journal.linesStartingWith("native.systemProxy.skip: ");
  EXPECT_EQ(applied.size() + skipped.size(), static_cast<std::size_t>(kThreads * kPerThread));
  EXPECT_EQ(applied.size(), switches.switches().size());
  std::vector<std::int64_t> appliedRevisions;
  for (const auto& line : applied) {
    appliedRevisions.push_back(std::stoll(line.substr(line.rfind('=') + 1)));
  }
  EXPECT_TRUE(std::is_sorted(appliedRevisions.begin(), appliedRevisions.end()));
  EXPECT_EQ(std::adjacent_find(appliedRevisions.begin(), appliedRevisions.end()),
            appliedRevisions.end());
  EXPECT_EQ(appliedRevisions.back(), kThreads * kPerThread);
  const std::string expectedState = finalWish ? "enabled=true" : "enabled=false";
  EXPECT_NE(applied.back().find(expectedState), std::string::npos) << applied.back();
  EXPECT_TRUE(journal.linesStartingWith("native.proxyEnabled.save.error").empty());
}

}  // namespace
}  // namespace qev::sysproxy
