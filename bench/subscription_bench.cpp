// Throughput of the runtime configuration text path against a YAML library round trip.
//
// The subscription is generated to look like a large panel subscription: 10,000 flow-style
// proxies with non-ASCII names (some VLESS REALITY and anytls entries needing a fingerprint),
// account information pseudo-nodes, 60 groups with long inline member lists that include
// hidden members, 5,000 rules, plus tun and dns sections and settings that are replaced.

#include <benchmark/benchmark.h>
#include <yaml-cpp/yaml.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "config/runtime_config_text.h"

namespace {

constexpr int kProxyCount = 10000;
constexpr int kGroupCount = 60;
constexpr int kMembersPerGroup = 600;
constexpr int kRuleCount = 5000;

std::string proxyName(int i) {
  static const char* const kRegions[] = {"🇭🇰 香港",        "🇯🇵 日本 東京",     "🇸🇬 新加坡",
                                         "🇺🇸 美国 洛杉矶", "🇰🇷 대한민국 서울", "🇹🇼 台灣"};
  char number[16];
  std::snprintf(number, sizeof number, "%04d", i);
  return std::string(kRegions[i % 6]) + " " + number + " | 专线 IEPL";
}

std::string generateSubscription() {
  std::string text;
  text.reserve(4u << 20);
  text +=
      "mixed-port: 7890\nport: 7891\nsocks-port: 7892\nallow-lan: true\nmode: rule\n"
      "log-level: info\nexternal-controller: 0.0.0.0:9090\nipv6: true\n"
      "tun:\n  enable: true\n  stack: gvisor\n  dns-hijack:\n    - any:53\n"
      "dns:\n  enable: true\n  ipv6: false\n  enhanced-mode: fake-ip\n  nameserver:\n"
      "    - 223.5.5.5\n    - 8.8.8.8\n";
  text += "proxies:\n";
  text +=
      "  - {name: 剩余流量：128.5 GB, type: ss, server: info.example.com, port: 1, cipher: "
      "aes-128-gcm, password: x}\n";
  text +=
      "  - {name: 距离下次重置剩余：12 天, type: ss, server: info.example.com, port: 1, cipher: "
      "aes-128-gcm, password: x}\n";
  text +=
      "  - {name: 套餐到期：2030-01-01, type: ss, server: info.example.com, port: 1, cipher: "
      "aes-128-gcm, password: x}\n";
  for (int i = 0; i < kProxyCount; ++i) {
    const std::string name = proxyName(i);
    const std::string server = "node" + std::to_string(i) + ".edge.example.net";
    switch (i % 4) {
      case 0:
        text += "  - {name: \"" + name + "\", type: vless, server: " + server +
                ", port: 443, uuid: 6f1c2f2e-8a4b-4c1d-9e2f-3a5b7c9d1e0f, network: tcp, tls: true, "
                "udp: true, flow: xtls-rprx-vision, servername: www.example.com, reality-opts: "
                "{public-key: Zx3kQm8V0yB7tW2nR5pL9cH4fJ6dS1aG, short-id: 0123abcd}}\n";
        break;
      case 1:
        text += "  - {name: '" + name + "', type: anytls, server: " + server +
                ", port: 8443, password: 2b7f0c4e-1d3a-4f5b-8c6d-9e0a1b2c3d4e, udp: true, sni: "
                "www.example.com, skip-cert-verify: false}\n";
        break;
      case 2:
        text += "  - {name: " + name + ", type: trojan, server: " + server +
                ", port: 443, password: 9c8b7a6f-5e4d-3c2b-1a0f-e9d8c7b6a5f4, udp: true, sni: "
                "www.example.com, client-fingerprint: chrome}\n";
        break;
      default:
        text += "  - {name: \"" + name + "\", type: ss, server: " + server +
                ", port: 20443, cipher: 2022-blake3-aes-128-gcm, password: "
                "bXlzZWNyZXRwYXNzd29yZA==, udp: true}\n";
        break;
    }
  }
  text += "proxy-groups:\n";
  text +=
      "  - {name: 自动选择, type: url-test, url: http://www.gstatic.com/generate_204, "
      "interval: 300, proxies: [DIRECT]}\n";
  for (int g = 0; g < kGroupCount; ++g) {
    text += "  - {name: 分组 " + std::to_string(g) + ", type: select, proxies: [自动选择, Auto, ";
    for (int m = 0; m < kMembersPerGroup; ++m) {
      const int member = (g * 97 + m * 13) % kProxyCount;
      text += m % 3 == 0 ? "\"" + proxyName(member) + "\"" : proxyName(member);
      text += ", ";
    }
    text += "剩余流量：128.5 GB, DIRECT]}\n";
  }
  text += "rules:\n";
  for (int r = 0; r < kRuleCount; ++r) {
    text += r % 2 == 0 ? "  - DOMAIN-SUFFIX,site" + std::to_string(r) + ".example.com,分组 1\n"
                       : "  - IP-CIDR,10." + std::to_string(r % 250) + "." +
                             std::to_string(r / 250) + ".0/24,DIRECT,no-resolve\n";
  }
  text += "  - MATCH,分组 0\n";
  return text;
}

const std::string& subscription() {
  static const std::string text = generateSubscription();
  return text;
}

void BM_BuildRuntimeConfigText(benchmark::State& state) {
  const std::string& text = subscription();
  for (auto _ : state) {
    std::string out = qev::config::buildRuntimeConfigText(text, "rule", true);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  state.counters["input_MB"] = static_cast<double>(text.size()) / 1e6;
}
BENCHMARK(BM_BuildRuntimeConfigText)->Unit(benchmark::kMillisecond);

// Baseline: parse the same text with a YAML library and emit it again.
void BM_YamlCppLoadEmit(benchmark::State& state) {
  const std::string& text = subscription();
  for (auto _ : state) {
    YAML::Emitter emitter;
    emitter << YAML::Load(text);
    benchmark::DoNotOptimize(emitter.c_str());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_YamlCppLoadEmit)->Unit(benchmark::kMillisecond);

// Prints the speed-up of the text path over the baseline after the table.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      const auto found = run.counters.find("bytes_per_second");
      if (found != run.counters.end()) rates_[run.run_name.function_name] = found->second.value;
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    const auto text = rates_.find("BM_BuildRuntimeConfigText");
    const auto yaml = rates_.find("BM_YamlCppLoadEmit");
    if (text == rates_.end() || yaml == rates_.end() || yaml->second <= 0) return;
    std::printf("text path %.1f MB/s, YAML round trip %.1f MB/s, ratio %.1fx\n", text->second / 1e6,
                yaml->second / 1e6, text->second / yaml->second);
  }

 private:
  std::map<std::string, double> rates_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
