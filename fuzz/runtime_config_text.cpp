// The subscription text the core will run: the one-pass rewrite matches the separate steps
// run one after another, on any bytes; and on subscriptions written as subscriptions are (one
// entry per line, built here from the input), a YAML mapping stays a mapping.

#include <fuzzer/FuzzedDataProvider.h>
#include <yaml-cpp/yaml.h>

#include <array>
#include <vector>

#include "base/constants.h"
#include "base/strings.h"
#include "config/runtime_config_text.h"
#include "config/yaml_lines.h"
#include "fuzz_check.h"

namespace {

using namespace qev;

// Without the settings the application appends, which both ways add alike.
std::string builtStepByStep(std::string_view subscription) {
  const std::string withoutSections =
      config::removeTopLevelYamlBlocks(subscription, config::kReplacedSections);
  std::vector<std::string> kept;
  for (std::string_view line : base::splitLines(withoutSections)) {
    bool owned = false;
    for (std::string_view prefix : config::kOwnedSettingPrefixes) owned |= line.starts_with(prefix);
    if (!owned) kept.emplace_back(line);
  }
  return config::ensureRule(config::kQuicRejectRule,
                            config::sanitizeSubscriptionYaml(base::join(kept, "\n")));
}

void checkAgainstSteps(std::string_view subscription, bool tun) {
  const std::string out = config::buildRuntimeConfigText(subscription, "rule", tun);
  const std::size_t tail = out.rfind("\nport: " + std::to_string(kHttpProxyPort) + "\n");
  FUZZ_CHECK(tail != std::string::npos);
  FUZZ_CHECK(out.substr(0, tail) == builtStepByStep(subscription));
}

bool isMapping(const std::string& text) {
  try {
    return YAML::Load(text).IsMap();
  } catch (const YAML::Exception&) {
    return false;
  }
}

// Names as panels write them, hidden ones among them; "%" in a line stands for one.
constexpr std::array<std::string_view, 8> kNames = {
    "G",        "Auto",    "🇭🇰 香港 01", "剩余流量：10 GB", "到期时间：2030-01-01",
    "自动选择", "QEV加速", "r"};

// A top-level entry and the lines that may stand under it.
struct Block {
  std::string_view head;
  std::vector<std::string_view> children;
};

const std::array<Block, 12> kBlocks = {{
    {"proxies:",
     {"  - {name: \"%\", type: ss, server: a.example, port: 443}",
      "  - {name: \"%\", type: vless, tls: true, reality-opts: {a: b}}", "  # comment",
      "- {name: \"%\", type: ss}"}},
    {"proxy-groups:",
     {"  - {name: \"%\", type: select, proxies: [\"%\", DIRECT]}",
      "  - {name: \"%\", proxies: []}"}},
    {"rules:",
     {"  - MATCH,%", "  - DOMAIN,a.example,%", "  - AND,((NETWORK,UDP),(DST-PORT,443)),REJECT",
      "  # comment", "", "- GEOIP,CN,DIRECT"}},
    {"dns:", {"  enable: true", "  nameserver:", "    - 1.1.1.1"}},
    {"tun:", {"  enable: true", "  stack: gvisor"}},
    {"listeners:", {"  - name: open", "    port: 1"}},
    {"external-controller-cors:", {"  allow-origins:", "    - '*'"}},
    {"rules: []", {}},
    {"mixed-port: 7890", {}},
    {"mode: rule", {}},
    {"secret: abc", {}},
    {"# comment", {}},
}};

std::string filled(std::string_view line, FuzzedDataProvider& input) {
  std::string out;
  for (const char c : line) {
    if (c == '%') {
      out += kNames[input.ConsumeIntegralInRange<std::size_t>(0, kNames.size() - 1)];
    } else {
      out += c;
    }
  }
  return out + (input.ConsumeBool() ? "\n" : "\r\n");
}

// A subscription of top-level entries, each with lines that fit under it.
std::string writtenSubscription(FuzzedDataProvider& input) {
  std::string text;
  for (int blocks = input.ConsumeIntegralInRange(0, 12); blocks > 0; --blocks) {
    const Block& block = kBlocks[input.ConsumeIntegralInRange<std::size_t>(0, kBlocks.size() - 1)];
    text += filled(block.head, input);
    if (block.children.empty()) continue;
    for (int lines = input.ConsumeIntegralInRange(0, 6); lines > 0; --lines) {
      text += filled(
          block.children[input.ConsumeIntegralInRange<std::size_t>(0, block.children.size() - 1)],
          input);
    }
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  checkAgainstSteps(fuzz::textOf(data, size), size % 2 == 0);

  FuzzedDataProvider input(data, size);
  const bool tun = input.ConsumeBool();
  const std::string subscription = writtenSubscription(input);
  checkAgainstSteps(subscription, tun);
  if (isMapping(subscription)) {
    FUZZ_CHECK(isMapping(config::buildRuntimeConfigText(subscription, "rule", tun)));
  }
  return 0;
}
