#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "base/main_queue.h"
#include "bridge/native_bridge.h"
#include "platforms.h"
#include "temp_home.h"

namespace qev::bridge {
namespace {

class RecordingSink final : public AnswerSink {
 public:
  void deliver(const Answer& answer) override { answers.push_back(answer); }
  void push(const Event& event) override { events.push_back(event); }
  std::vector<Answer> answers;
  std::vector<Event> events;
};

// The same dispatch under both platform profiles: the macOS shell drives this bridge too.
class BridgeDispatchTest : public ::testing::TestWithParam<storage::Platform> {
 protected:
  void SetUp() override {
    queue_ = std::make_shared<base::ManualMainQueue>();
    bridge_ = std::make_unique<NativeBridge>(test::profileIn(GetParam(), dir_.path()),
                                             ShellSeams{queue_, nullptr});
    sink_ = std::make_shared<RecordingSink>();
    bridge_->setAnswerSink(sink_);
  }

  std::vector<std::string> logLines() const {
    std::vector<std::string> lines;
    std::istringstream in(test::readText(bridge_->log().file()));
    for (std::string line; std::getline(in, line);) lines.push_back(line.substr(23));
    return lines;
  }

  test::TempDir dir_;
  std::shared_ptr<base::ManualMainQueue> queue_;
  std::unique_ptr<NativeBridge> bridge_;
  std::shared_ptr<RecordingSink> sink_;
};

INSTANTIATE_TEST_SUITE_P(Platforms, BridgeDispatchTest, test::kBothPlatforms, test::platformName);

TEST_P(BridgeDispatchTest, MalformedRequestsAreDroppedWithoutLogOrAnswer) {
  const std::vector<Json> bodies = {
      Json::array({"1", "getConfig"}),
      Json{{"id", 1}, {"name", "getConfig"}},
      Json{{"id", "1"}},
      Json{{"id", "1"}, {"name", nullptr}},
      Json{{"name", "getConfig"}},
      Json("text"),
  };
  for (const auto& body : bodies) bridge_->receive("nativeBridge", body);
  bridge_->receive("otherChannel", Json{{"id", "1"}, {"name", "x"}});
  queue_->drain();
  EXPECT_TRUE(sink_->answers.empty());
  EXPECT_TRUE(logLines().empty());
}

// Calls arrive on one thread each and complete on storage, HTTP and caller threads; every one
// is answered exactly once, on the main queue (run under ThreadSanitizer).
TEST_P(BridgeDispatchTest, CallsFromManyThreadsAreEachAnsweredOnce) {
  constexpr int kThreads = 6;
  constexpr int kCallsEach = 30;
  const std::vector<Json> calls = {{{"name", "getSettings"}},
                                   {{"name", "getConfig"}},
                                   {{"name", "getLogs"}, {"args", {"info"}}},
                                   {{"name", "getServers"}},
                                   {{"name", "httpRequest"}, {"args", {{{"url", "ftp://x"}}}}},
                                   {{"name", "noSuchCommand"}}};
  std::vector<std::thread> callers;
  for (int t = 0; t < kThreads; ++t) {
    callers.emplace_back([&, t] {
      for (int i = 0; i < kCallsEach; ++i) {
        Json body = calls[static_cast<std::size_t>(i) % calls.size()];
        body["id"] = std::to_string(t) + "-" + std::to_string(i);
        bridge_->receive("nativeBridge", body);
      }
    });
  }
  for (auto& caller : callers) caller.join();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (bridge_->commandsInFlight() > 0 && std::chrono::steady_clock::now() < deadline) {
    queue_->drain();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  queue_->drain();
  std::set<std::string> ids;
  for (const auto& answer : sink_->answers) ids.insert(answer.id);
  EXPECT_EQ(sink_->answers.size(), static_cast<std::size_t>(kThreads * kCallsEach));
  EXPECT_EQ(ids.size(), sink_->answers.size());
}

TEST_P(BridgeDispatchTest, UnknownOrMiscasedNamesResolveFalseAndAreLogged) {
  bridge_->receive("nativeBridge", Json{{"id", "7"}, {"name", "GetConfig"}});
  bridge_->receive("nativeBridge", Json{{"id", "8"}, {"name", "noSuchCommand"}, {"args", "x"}});
  queue_->drain();
  ASSERT_EQ(sink_->answers.size(), 2u);
  EXPECT_EQ(sink_->answers[0].id, "7");
  EXPECT_TRUE(sink_->answers[0].ok);
  EXPECT_EQ(sink_->answers[0].value, Json(false));
  EXPECT_EQ(sink_->answers[0].statement,
            R"(window.__nativeBridgeResolve && window.__nativeBridgeResolve("7", false);)");
  EXPECT_EQ(logLines(), (std::vector<std::string>{"native.bridge.call: GetConfig ",
                                                  "native.bridge.call: noSuchCommand "}));
}

TEST_P(BridgeDispatchTest, EventsReachThePageOnTheMainQueueAsOneStatement) {
  std::thread([this] {
    bridge_->pushEvent("proxyState", {{"connected", false}, {"reason", "coreStopped"}});
  }).join();
  EXPECT_TRUE(sink_->events.empty());  // nothing before the main queue runs
  queue_->drain();
  ASSERT_EQ(sink_->events.size(), 1u);
  EXPECT_EQ(sink_->events[0].statement,
            "window.__nativeBridgeEvent && window.__nativeBridgeEvent(\"proxyState\", "
            "{\"connected\":false,\"reason\":\"coreStopped\"});");
}

TEST_P(BridgeDispatchTest, LogChannelHandsTheWholeBodyToTheLog) {
  bridge_->receive("nativeLog", Json{{"message", "page says token=abc"}});
  bridge_->receive("nativeLog", Json("plain"));
  bridge_->receive("nativeLog", Json{{"other", 1}});
  EXPECT_EQ(logLines(),
            (std::vector<std::string>{"page says token=***", "plain", R"({"other":1})"}));
}

TEST_P(BridgeDispatchTest, RejectStatementCarriesTheMessageAsLiteral) {
  bridge_->reject("3", "bad \"thing\"\u2028");
  ASSERT_EQ(sink_->answers.size(), 1u);
  EXPECT_EQ(
      sink_->answers[0].statement,
      R"(window.__nativeBridgeReject && window.__nativeBridgeReject("3", "bad \"thing\"\u2028");)");
}

TEST_P(BridgeDispatchTest, AnswersWithoutSinkAreDropped) {
  sink_.reset();
  bridge_->resolve("1", true);  // must not crash
  SUCCEED();
}

struct BoolCase {
  std::string name;
  Json value;
  bool expected;
  // Names the case in test listings instead of dumping its bytes.
  friend void PrintTo(const BoolCase& c, std::ostream* os) { *os << c.name; }
};

class BoolArgTest : public ::testing::TestWithParam<BoolCase> {};

TEST_P(BoolArgTest, ReadsBooleanArguments) {
  EXPECT_EQ(boolArg(&GetParam().value), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, BoolArgTest,
    ::testing::Values(
        BoolCase{"true", true, true}, BoolCase{"false", false, false},
        BoolCase{"upper_TRUE", "TRUE", true}, BoolCase{"kaiqi", "开启", true},
        BoolCase{"qiyong", "启用", true}, BoolCase{"yes", "Yes", true}, BoolCase{"on", "on", true},
        BoolCase{"one", "1", true}, BoolCase{"leading_blank", " true", false},
        BoolCase{"number_2", 2, false}, BoolCase{"number_1", 1, false},
        BoolCase{"null", nullptr, false}, BoolCase{"enabled", Json{{"enabled", true}}, true},
        BoolCase{"only_autoLaunch", Json{{"autoLaunch", true}}, true},
        BoolCase{"skips_non_bool", Json{{"enabled", "yes"}, {"openAtLogin", true}}, true},
        BoolCase{"first_bool_wins", Json{{"enabled", false}, {"autoLaunch", true}}, false},
        BoolCase{"no_bool_key", Json{{"enabled", 1}}, false},
        BoolCase{"array", Json::array({true}), false}),
    [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace qev::bridge
