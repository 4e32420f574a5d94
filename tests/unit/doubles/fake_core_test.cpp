// Checks the test core against what the real core does (core-controller.md), since every
// end-to-end test of the core supervision relies on it. Uses the fixed ports 33210-33212.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "base/json.h"
#include "temp_home.h"
#include "test_config.h"
#include "test_processes.h"

namespace qev::test {
namespace {

using namespace doubles;

// Three nodes (one with a blank and CJK, one with "/" and ","), a selector, an url-test and a
// load-balance.
constexpr const char* kConfig = R"(port: 33210
socks-port: 33211
external-controller: 127.0.0.1:33212
allow-lan: false
mode: rule
log-level: info
proxies:
    - { name: HK-01, type: vmess, server: a.example.com, port: 443, uuid: u, alterId: 0, cipher: auto }
    - { name: '东京 02', type: ss, server: b.example.com, port: 8388, cipher: aes-128-gcm, password: p, udp: true }
    - { name: 'a/b, c', type: trojan, server: c.example.com, port: 443, password: p }
proxy-groups:
    - { name: QEV加速, type: select, proxies: [HK-01, '东京 02', 'a/b, c'] }
    - { name: Auto, type: url-test, proxies: [HK-01, '东京 02'], url: 'http://www.gstatic.com/generate_204', interval: 300 }
    - { name: Balance, type: load-balance, proxies: [HK-01, '东京 02'] }
rules:
    - AND,((NETWORK,UDP),(DST-PORT,443)),REJECT
    - 'DOMAIN,example.com,Auto'
    - 'MATCH,QEV加速'
)";

std::string url(const std::string& path) {
  return std::string(kController) + path;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) out.push_back(line);
  return out;
}

Json parsed(const HttpReply& reply) {
  return Json::parse(reply.body, nullptr, false);
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class FakeCoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_STRNE(kFakeCore, "") << "fake_core was not built";
    home_ = dir_.path() / "data";
    config_ = home_ / "runtime.yaml";
    std::filesystem::create_directories(home_);
    writeText(config_, kConfig);
  }

  std::unique_ptr<ChildProcess> launch() {
    return std::make_unique<ChildProcess>(
        ChildProcess::Options{kFakeCore,
                              {"-d", home_.string(), "-f", config_.string()},
                              "clash.mihomo",
                              {},
                              dir_.path()});
  }

  // Starts the core on the runtime file and waits until it has applied it. Suites of other
  // build trees on this machine start cores on the same fixed ports: wait until they are free,
  // and start again when another program took one in the meantime.
  std::unique_ptr<ChildProcess> start() {
    std::unique_ptr<ChildProcess> core;
    for (int attempt = 0; attempt < 5; ++attempt) {
      EXPECT_TRUE(
          waitUntil([] { return portFree(33210) && portFree(33211) && portFree(33212); }, 120s))
          << "the fixed core ports stay taken by another program";
      core = launch();
      waitUntil([&] {
        return contains(core->stdoutText(), "Initial configuration complete") || !core->running();
      });
      const std::string out = core->stdoutText();
      if (!contains(out, "listen error") && !contains(out, "server error")) break;
    }
    EXPECT_TRUE(contains(core->stdoutText(), "RESTful API listening at: 127.0.0.1:33212"))
        << core->stdoutText();
    return core;
  }

  HttpReply put(const std::string& path, const std::string& body) {
    return http(HttpCall{"PUT", url(path), body, {}});
  }
  std::string nowOf(const std::string& group) {
    return parsed(httpGet(url("/proxies/" + encodeSegment(group))))["now"].get<std::string>();
  }

  TempDir dir_;
  std::filesystem::path home_;
  std::filesystem::path config_;
};

TEST_F(FakeCoreTest, RefusedConfigurationsExitOneWithOneFatalLineAndNoController) {
  struct Case {
    const char* text;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"mode: bogus\n", "Parse config error: invalid mode"},
      {"", "Parse config error: configuration file " + config_.string() + " is empty"},
      {"proxy-groups:\n    - { name: G, type: select, proxies: [X] }\n",
       "Parse config error: proxy group[0]: G: 'X' not found"},
      {"rules:\n    - 'DOMAIN,a.com,DIRECT'\n    - 'MATCH,Foo'\n",
       "Parse config error: rules[1] [MATCH,Foo] error: proxy [Foo] not found"},
      {"rules:\n    - AND,((NETWORK,UDP),(DST-PORT,443)),Gone\n",
       "Parse config error: rules[0] [AND,((NETWORK,UDP),(DST-PORT,443)),Gone] error: proxy [Gone] "
       "not found"},
      {"port: 1\nmode: rule\nport: 2\n", "mapping key \\\"port\\\" already defined at line 1"},
      {"proxies:\n    - { name: 'broken, type: ss }\n", "Parse config error: yaml: line "},
      {"proxies:\n    - { name: A, type: ss, server: s, port: 1, cipher: c, password: p }\n"
       "    - { name: A, type: ss, server: s, port: 1, cipher: c, password: p }\n",
       "Parse config error: proxy A is the duplicate name"},
      {"rules:\n    - 'GEOIP,CN,DIRECT'\n", "can't initial GeoIP"},
      {"dns:\n  enable: true\n", "NameServer cannot be empty"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    writeText(config_,
              std::string(c.text) +
                  (std::string(c.text).empty() ? "" : "external-controller: 127.0.0.1:33212\n"));
    auto core = launch();
    ASSERT_EQ(core->waitExit(), 1);
    const auto out = lines(core->stdoutText());
    ASSERT_FALSE(out.empty());
    int fatal = 0;
    for (const auto& line : out) fatal += line.find("level=fatal") != std::string::npos;
    EXPECT_EQ(fatal, 1);
    EXPECT_NE(out.back().find("level=fatal msg=\""), std::string::npos) << out.back();
    EXPECT_NE(out.back().find(c.message), std::string::npos) << out.back();
    EXPECT_EQ(core->stderrText(), "");
    EXPECT_FALSE(contains(core->stdoutText(), "RESTful API"));
  }
}

TEST_F(FakeCoreTest, SelectingAnswersWithTheCoresStatusCodesAndTexts) {
  auto core = start();
  struct Case {
    std::string group;
    std::string body;
    long status;
    std::string message;  // empty: no body expected
  };
  const std::vector<Case> cases = {
      {"Nope", "not json", 404, "Resource not found"},
      {"qev加速", R"({"name":"HK-01"})", 404, "Resource not found"},
      {"QEV加速", "", 400, "Body invalid"},
      {"QEV加速", "{\"name\":5}", 400, "Body invalid"},
      {"QEV加速", "[]", 400, "Body invalid"},
      {"HK-01", R"({"name":"HK-01"})", 400, "Must be a Selector"},
      {"Balance", R"({"name":"HK-01"})", 400, "Must be a Selector"},
      {"DIRECT", R"({"name":"DIRECT"})", 400, "Must be a Selector"},
      {"QEV加速", R"({"name":"Nope"})", 400, "Selector update error: proxy not exist"},
      {"QEV加速", R"({"name":""})", 400, "Selector update error: proxy not exist"},
      {"QEV加速", R"({"name":"a/b, c","extra":1})", 204, ""},
      {"Auto", R"({"name":"东京 02"})", 204, ""},
      {"GLOBAL", R"({"name":"QEV加速"})", 204, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.group + " " + c.body);
    const HttpReply reply = put("/proxies/" + encodeSegment(c.group), c.body);
    EXPECT_EQ(reply.status, c.status);
    if (c.message.empty()) {
      EXPECT_EQ(reply.body, "");
      EXPECT_FALSE(reply.hasHeader("content-type"));
    } else {
      EXPECT_EQ(reply.header("content-type"), "application/json");
      EXPECT_EQ(reply.body, Json({{"message", c.message}}).dump() + "\n");
    }
  }
  EXPECT_EQ(nowOf("QEV加速"), "a/b, c");
  EXPECT_EQ(nowOf("Auto"), "东京 02");
  EXPECT_EQ(nowOf("GLOBAL"), "QEV加速");
}

}  // namespace
}  // namespace qev::test
