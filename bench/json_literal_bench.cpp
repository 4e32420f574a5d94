// jsonLiteral against a plain serialisation of the same value: the answer to getServers is
// the largest value the bridge ever encodes, a proxy table of thousands of entries.
#include <benchmark/benchmark.h>

#include "base/json.h"
#include "bridge/literals.h"

namespace {

qev::Json proxyTable(int entries) {
  qev::Json table = qev::Json::object();
  qev::Json members = qev::Json::array();
  for (int i = 0; i < entries; ++i) {
    const std::string name = "香港 HK-" + std::to_string(i) + " 🇭🇰 \"premium\"";
    members.push_back(name);
    table[name] = {{"name", name},   {"type", "Vmess"}, {"alive", true},
                   {"history", qev::Json::array({{{"time", "2026-11-23T08:00:00Z"}, {"delay", 120 + i % 50}}})},
                   {"extra", qev::Json::object()}, {"udp", true}, {"xudp", false}, {"tfo", false}};
  }
  table["SELECT"] = {{"name", "SELECT"}, {"type", "Selector"}, {"now", members[0]}, {"all", members}};
  return table;
}

void BM_JsonLiteral(benchmark::State& state) {
  const auto table = proxyTable(10000);
  for (auto _ : state) {
    auto text = qev::bridge::jsonLiteral(table);
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_JsonLiteral)->Unit(benchmark::kMillisecond);

void BM_PlainDump(benchmark::State& state) {
  const auto table = proxyTable(10000);
  for (auto _ : state) {
    auto text = table.dump();
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_PlainDump)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
