// The native work behind getServers: dropping hidden choices from the core's proxy table and
// resolving the main group behind "SELECT", on converter-shaped tables. Reported per table
// size so that growth in the number of nodes can be read off (it must stay linear).
#include <benchmark/benchmark.h>

#include "base/json.h"
#include "config/config_outline.h"
#include "proxies/server_list.h"

namespace {

qev::Json entry(const std::string& name, const std::string& type) {
  return {{"name", name},
          {"type", type},
          {"alive", true},
          {"udp", true},
          {"history", qev::Json::array({{{"time", "2026-11-23T08:00:00Z"}, {"delay", 120}}})}};
}

qev::Json group(const std::string& name, const std::string& type, qev::Json all) {
  qev::Json g = entry(name, type);
  g["now"] = all.empty() ? "" : all[0];
  g["all"] = std::move(all);
  return g;
}

// `nodes` nodes in 58 regional selectors, a main selector over the regions and every node, a
// catch-all selector in front of it, GLOBAL, and account pseudo-nodes: 60 groups in all.
qev::Json converterTable(int nodes) {
  qev::Json table = qev::Json::object();
  qev::Json everyNode = qev::Json::array();
  std::vector<qev::Json> regions(58, qev::Json::array());
  for (int i = 0; i < nodes; ++i) {
    const std::string name = "🇭🇰 香港 HK-" + std::to_string(i) + " | IEPL";
    table[name] = entry(name, "Vmess");
    everyNode.push_back(name);
    regions[i % regions.size()].push_back(name);
  }
  table["剩余流量：97 GB"] = entry("剩余流量：97 GB", "Shadowsocks");
  qev::Json main = qev::Json::array({"♻️ 自动选择"});
  for (std::size_t r = 0; r < regions.size(); ++r) {
    const std::string name = "Region " + std::to_string(r);
    table[name] = group(name, "Selector", regions[r]);
    main.push_back(name);
  }
  for (const auto& node : everyNode) main.push_back(node);
  table["♻️ 自动选择"] = group("♻️ 自动选择", "URLTest", everyNode);
  table["🚀 节点选择"] = group("🚀 节点选择", "Selector", main);
  table["🐟 漏网之鱼"] = group("🐟 漏网之鱼", "Selector", {"🚀 节点选择", "DIRECT"});
  table["GLOBAL"] = group("GLOBAL", "Selector", everyNode);
  table["DIRECT"] = entry("DIRECT", "Direct");
  return table;
}

void BM_GetServersNativeWork(benchmark::State& state) {
  const qev::Json table = converterTable(static_cast<int>(state.range(0)));
  const qev::config::ConfigOutline outline{"🐟 漏网之鱼", {"🐟 漏网之鱼", "🚀 节点选择"}};
  qev::proxies::ClientProxyTable client;
  for (auto _ : state) {
    // The product moves the core's reply in and frees the answer after encoding it: neither
    // the copy nor the release is the work measured here.
    state.PauseTiming();
    client = {};
    qev::Json reply = table;
    state.ResumeTiming();
    client = qev::proxies::normalizeProxiesForClient(std::move(reply), outline);
    benchmark::DoNotOptimize(client);
  }
  state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_GetServersNativeWork)
    ->RangeMultiplier(4)
    ->Range(625, 10000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity();

}  // namespace

BENCHMARK_MAIN();
