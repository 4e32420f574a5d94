// The core's proxy table as the page receives it: whatever the core answers, no hidden choice
// reaches the page, and an alias "SELECT" is always a selector.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>

#include "base/json.h"
#include "config/config_outline.h"
#include "config/hidden_choices.h"
#include "fuzz_check.h"
#include "proxies/server_list.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qev;
  FuzzedDataProvider input(data, size);
  const config::ConfigOutline outline = config::outlineOf(input.ConsumeRandomLengthString(256));
  Json table = base::parseJson(input.ConsumeRemainingBytesAsString());
  if (table.is_discarded()) return 0;
  if (table.is_object() && table.contains("proxies")) table = table["proxies"];

  const auto client = proxies::normalizeProxiesForClient(table, outline);
  proxies::proxySummary(client.table);
  if (!client.table.is_object()) return 0;
  for (const auto& [name, entry] : client.table.items()) {
    FUZZ_CHECK(!config::isHiddenProxyChoice(name) || name == "SELECT");
    if (!entry.is_object() || !entry.contains("all") || !entry["all"].is_array()) continue;
    const auto& members = entry["all"];
    if (!std::all_of(members.begin(), members.end(), [](const Json& m) { return m.is_string(); })) {
      continue;  // not a member list the core writes: passed on as it came
    }
    for (const auto& member : members) {
      FUZZ_CHECK(!config::isHiddenProxyChoice(member.get<std::string>()));
    }
  }
  if (client.alias) FUZZ_CHECK(proxies::isSelectorEntry(client.table["SELECT"]));
  return 0;
}
