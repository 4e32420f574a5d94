#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/error.h"
#include "base/json.h"
#include "config/config_outline.h"

namespace qev::proxies {

// A proxy-table entry without hidden choices: nothing when the entry itself is hidden; its
// member list filtered; a hidden current member replaced by the first visible one (or "").
std::optional<Json> filteredProxyItem(Json item);

struct ClientProxyTable {
  Json table;                        // what the page receives
  std::optional<std::string> alias;  // the group copied to "SELECT", when one was made
};

// The core's proxy table as the page expects it: hidden entries gone and a "SELECT" selector,
// aliased from the main group (resolveMainGroup) when the table has none; the copy names its
// original under "aliasOf".
ClientProxyTable normalizeProxiesForClient(Json table, const config::ConfigOutline& outline);

// "count=N selectors=M" for a table, "nonObject" for anything else.
std::string proxySummary(const Json& value);

// The proxy table of a `GET /proxies` reply, or none when the reply has no table.
const Json* proxyTableOf(const Result<Json>& reply);

// The entry of the table under `name`, or none (a missing key is never looked up by []).
const Json* proxyEntry(const Json& table, const std::string& name);

// Whether an entry is a group the user may switch ("Selector", any letter case).
bool isSelectorEntry(const Json& entry);

// The table's keys with the main groups of the known panels first (the product's own group,
// "GLOBAL", "Proxy", "🚀 节点选择"), then the rest in table order: the order in which a group
// is looked for, so a choice lands in the group that actually routes traffic.
std::vector<std::string> groupSearchOrder(const Json& table);

}  // namespace qev::proxies
