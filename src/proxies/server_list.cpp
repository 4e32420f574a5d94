#include "proxies/server_list.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "base/constants.h"
#include "base/strings.h"
#include "config/hidden_choices.h"
#include "proxies/traffic_path.h"

namespace qev::proxies {
namespace {

// The product's own group first, then the names other panels give their main group.
constexpr std::array<std::string_view, 4> kPreferredGroups = {kProductGroup, "GLOBAL", "Proxy",
                                                              "🚀 节点选择"};

bool isStringArray(const Json& value) {
  if (!value.is_array()) return false;
  for (const auto& v : value) {
    if (!v.is_string()) return false;
  }
  return true;
}

}  // namespace

const Json* proxyTableOf(const Result<Json>& reply) {
  if (!reply || !reply.value().is_object()) return nullptr;
  const auto table = reply.value().find("proxies");
  return table != reply.value().end() && table->is_object() ? &*table : nullptr;
}

const Json* proxyEntry(const Json& table, const std::string& name) {
  if (!table.is_object()) return nullptr;
  const auto it = table.find(name);
  return it != table.end() && it->is_object() ? &*it : nullptr;
}

bool isSelectorEntry(const Json& entry) {
  if (!entry.is_object()) return false;
  const auto type = entry.find("type");
  return type != entry.end() && type->is_string() &&
         base::toLowerAscii(type->get_ref<const std::string&>()) == "selector";
}

namespace {

bool isHiddenName(const Json& name) {
  return name.is_string() && config::isHiddenProxyChoice(name.get_ref<const std::string&>());
}

// Drops hidden members in place and moves a hidden current member to the first visible one.
void filterMembers(Json& item) {
  const auto all = item.find("all");
  if (all == item.end() || !isStringArray(*all)) return;
  auto& members = all->get_ref<Json::array_t&>();
  members.erase(std::remove_if(members.begin(), members.end(), isHiddenName), members.end());
  const auto now = item.find("now");
  if (now != item.end() && isHiddenName(*now)) {
    *now = members.empty() ? Json(std::string()) : members.front();
  }
}

}  // namespace

std::optional<Json> filteredProxyItem(Json item) {
  if (const auto name = item.find("name"); name != item.end() && isHiddenName(*name)) {
    return std::nullopt;
  }
  filterMembers(item);
  return item;
}

ClientProxyTable normalizeProxiesForClient(Json table, const config::ConfigOutline& outline) {
  if (!table.is_object()) return {std::move(table), std::nullopt};
  // Filtered in place: rebuilding a table of thousands of entries costs more than the filter.
  auto& entries = table.get_ref<Json::object_t&>();
  for (auto it = entries.begin(); it != entries.end();) {
    const bool hidden =
        config::isHiddenProxyChoice(it->first) ||
        (it->second.is_object() && it->second.contains("name") && isHiddenName(it->second["name"]));
    if (hidden) {
      it = entries.erase(it);
      continue;
    }
    if (it->second.is_object()) filterMembers(it->second);
    ++it;
  }
  const std::string selector(kSelectorGroup);
  if (table.contains(selector)) return {std::move(table), std::nullopt};
  const auto main = resolveMainGroup(table, outline);
  if (!main) return {std::move(table), std::nullopt};
  Json copy = table[*main];
  copy["name"] = selector;
  copy["aliasOf"] = *main;  // so that the page lists the group once
  table[selector] = std::move(copy);
  return {std::move(table), *main};
}

std::vector<std::string> groupSearchOrder(const Json& table) {
  std::vector<std::string> order;
  if (!table.is_object()) return order;
  for (auto preferred : kPreferredGroups) {
    if (table.contains(preferred)) order.emplace_back(preferred);
  }
  for (const auto& [key, entry] : table.items()) {
    if (std::find(order.begin(), order.end(), key) == order.end()) order.push_back(key);
  }
  return order;
}

std::string proxySummary(const Json& value) {
  if (!value.is_object()) return "nonObject";
  std::size_t selectors = 0;
  for (const auto& entry : value) {
    if (isSelectorEntry(entry)) ++selectors;
  }
  return "count=" + std::to_string(value.size()) + " selectors=" + std::to_string(selectors);
}

}  // namespace qev::proxies
