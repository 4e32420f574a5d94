#include "proxies/traffic_path.h"

#include <array>
#include <deque>
#include <unordered_map>
#include <unordered_set>

#include "base/constants.h"
#include "config/hidden_choices.h"
#include "proxies/server_list.h"

namespace qev::proxies {
namespace {

constexpr std::array<std::string_view, 3> kOtherPanelsMainGroups = {"GLOBAL", "Proxy",
                                                                    "🚀 节点选择"};

// Types of the core's table that are not a node of the subscription.
constexpr std::array<std::string_view, 10> kNotANode = {
    "Selector", "URLTest", "Fallback",   "LoadBalance", "Relay",
    "Direct",   "Reject",  "RejectDrop", "Compatible",  "Pass"};

bool isSelector(const Json& table, const std::string& name) {
  const Json* entry = proxyEntry(table, name);
  return entry != nullptr && isSelectorEntry(*entry);
}

bool isNode(const Json& table, const std::string& name) {
  const Json* entry = proxyEntry(table, name);
  if (entry == nullptr) return false;
  const auto type = entry->find("type");
  if (type == entry->end() || !type->is_string()) return false;
  const auto& text = type->get_ref<const std::string&>();
  for (const auto notNode : kNotANode) {
    if (text == notNode) return false;
  }
  return true;
}

// The member list of a group entry, or none.
const Json::array_t* membersOf(const Json& table, const std::string& name) {
  const Json* entry = proxyEntry(table, name);
  if (entry == nullptr) return nullptr;
  const auto all = entry->find("all");
  return all != entry->end() && all->is_array() ? &all->get_ref<const Json::array_t&>() : nullptr;
}

bool holdsNode(const Json& table, const std::string& group) {
  const auto* members = membersOf(table, group);
  if (members == nullptr) return false;
  for (const auto& member : *members) {
    if (member.is_string() && isNode(table, member.get_ref<const std::string&>())) return true;
  }
  return false;
}

// Breadth-first over selector members from `from`; stops at the first selector `accept` takes.
// Returns the chain to it (both ends included), or empty.
template <class Accept>
std::vector<std::string> searchSelectors(const Json& table, const std::string& from,
                                         Accept accept) {
  if (!isSelector(table, from)) return {};
  std::unordered_map<std::string, std::string> cameFrom{{from, ""}};
  std::deque<std::string> queue{from};
  while (!queue.empty()) {
    const std::string group = std::move(queue.front());
    queue.pop_front();
    if (accept(group)) {
      std::vector<std::string> path;
      for (std::string at = group; !at.empty(); at = cameFrom[at]) path.push_back(at);
      return {path.rbegin(), path.rend()};
    }
    const auto* members = membersOf(table, group);
    if (members == nullptr) continue;
    for (const auto& member : *members) {
      if (!member.is_string()) continue;
      const auto& name = member.get_ref<const std::string&>();
      if (isSelector(table, name) && cameFrom.emplace(name, group).second) queue.push_back(name);
    }
  }
  return {};
}

}  // namespace

std::optional<std::string> resolveMainGroup(const Json& table,
                                            const config::ConfigOutline& outline) {
  if (!table.is_object()) return std::nullopt;
  const std::string select(kSelectorGroup);
  if (table.contains(select)) return select;
  const std::string product(kProductGroup);
  if (isSelector(table, product)) return product;
  if (outline.catchAllTarget) {
    const auto path = searchSelectors(table, *outline.catchAllTarget, [&](const std::string& g) {
      return !config::isHiddenProxyChoice(g) && holdsNode(table, g);
    });
    if (!path.empty()) return path.back();
  }
  for (const auto name : kOtherPanelsMainGroups) {
    if (isSelector(table, std::string(name))) return std::string(name);
  }
  for (const auto& name : outline.groupOrder) {
    if (isSelector(table, name) && !config::isHiddenProxyChoice(name)) return name;
  }
  // No configuration to go by (none written yet): the table's own order is all there is.
  for (const auto& [name, entry] : table.items()) {
    if (isSelectorEntry(entry) && !config::isHiddenProxyChoice(name)) return name;
  }
  return std::nullopt;
}

std::vector<std::string> selectorPath(const Json& table, const std::string& from,
                                      const std::string& to) {
  if (!table.is_object()) return {};
  return searchSelectors(table, from, [&](const std::string& group) { return group == to; });
}

std::optional<std::string> trafficEntry(std::string_view mode,
                                        const config::ConfigOutline& outline) {
  if (mode == "global") return "GLOBAL";
  if (mode == "direct") return std::nullopt;
  return outline.catchAllTarget;
}

}  // namespace qev::proxies
