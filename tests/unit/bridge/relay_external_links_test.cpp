#include "recording_logger.h"
#include "relay/external_links.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/main_queue.h"

namespace qev::relay {
namespace {

using test::RecordingLogger;

struct Outcome {
  std::optional<Json> resolved;
  std::optional<BridgeError> rejected;
};

class ExternalLinksTest : public ::testing::Test {
 protected:
  Outcome open(const Json& args) {
    Outcome outcome;
    links_.openExternal(
        args, [&](Json v) { outcome.resolved = std::move(v); },
        [&](BridgeError e) { outcome.rejected = std::move(e); });
    queue_->drain();
    return outcome;
  }

  RecordingLogger log_;
  std::shared_ptr<base::ManualMainQueue> queue_ = std::make_shared<base::ManualMainQueue>();
  std::vector<std::string> opened_;
  ExternalLinks links_{log_, queue_, [this](const std::string& url) { opened_.push_back(url); }};
};

struct LinkCase {
  std::string name;
  Json args;
  std::string opened;  // "" when rejected
  int code = 0;
  friend void PrintTo(const LinkCase& c, std::ostream* os) { *os << c.name; }
};

class ExternalLinkTableTest : public ExternalLinksTest,
                              public ::testing::WithParamInterface<LinkCase> {};

TEST_P(ExternalLinkTableTest, OpensOnlyWebAndMailLinks) {
  const auto& c = GetParam();
  const Outcome outcome = open(c.args);
  if (c.code == 0) {
    ASSERT_TRUE(outcome.resolved);
    EXPECT_EQ(*outcome.resolved, true);
    EXPECT_EQ(opened_, std::vector<std::string>{c.opened});
  } else {
    ASSERT_TRUE(outcome.rejected);
    EXPECT_EQ(outcome.rejected->domain, "NativeBridge");
    EXPECT_EQ(outcome.rejected->code, c.code);
    EXPECT_EQ(outcome.rejected->description,
              c.code == 20 ? "missing external URL" : "invalid external URL");
    EXPECT_TRUE(opened_.empty());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, ExternalLinkTableTest,
    ::testing::Values(
        LinkCase{"https", Json::array({"https://panel.example.com/#/ticket"}),
                 "https://panel.example.com/#/ticket"},
        LinkCase{"trimmed", Json::array({"\n\t http://a.example/x \u3000"}), "http://a.example/x"},
        LinkCase{"scheme_relative", Json::array({"//a.example/p?q=1"}), "https://a.example/p?q=1"},
        LinkCase{"upper_case_scheme", Json::array({"HTTPS://A.EXAMPLE/"}), "HTTPS://A.EXAMPLE/"},
        LinkCase{"mailto", Json::array({"mailto:help@example.com"}), "mailto:help@example.com"},
        LinkCase{"no_arguments", Json::array(), "", 20},
        LinkCase{"not_a_string", Json::array({42}), "", 20},
        LinkCase{"only_blanks", Json::array({"   \n "}), "", 20},
        LinkCase{"file", Json::array({"file:///etc/passwd"}), "", 21},
        LinkCase{"javascript", Json::array({"javascript:alert(1)"}), "", 21},
        LinkCase{"application_scheme", Json::array({"qevnative://app/"}), "", 21},
        LinkCase{"scheme_relative_without_host", Json::array({"//"}), "", 21},
        LinkCase{"relative_path", Json::array({"/api/v1/x"}), "", 21}),
    [](const auto& info) { return info.param.name; });

TEST_F(ExternalLinksTest, OpensOnTheMainQueueAndLogsTheRedactedLink) {
  bool resolved = false;
  links_.openExternal(
      Json::array({"https://p.example/s/SecretCode?token=abc"}), [&](Json) { resolved = true; },
      [](BridgeError) {});
  EXPECT_TRUE(opened_.empty()) << "opened before the main queue ran";
  EXPECT_FALSE(resolved);
  queue_->drain();
  EXPECT_TRUE(resolved);
  ASSERT_EQ(opened_.size(), 1u);
  const auto lines = log_.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "native.openExternal: https://p.example/s/***?token=***");
}

}  // namespace
}  // namespace qev::relay
