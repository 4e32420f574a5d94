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

bool isSelectorEntry(const Json& entry) {
  if (!entry.is_object()) return false;
  const auto type = entry.find("type");
  return type != entry.end() && type->is_string() &&
         base::toLowerAscii(type->get_ref<const std::string&>()) == "selector";
}

std::optional<Json> filteredProxyItem(Json item) {
  if (const auto name = item.find("name");
      name != item.end() && name->is_string() && config::isHiddenProxyChoice(name->get<std::string>())) {
    return std::nullopt;
  }
  const auto all = item.find("all");
  if (all != item.end() && isStringArray(*all)) {
    const auto visible = config::filteredProxyChoices(all->get<std::vector<std::string>>());
    *all = visible;
    const auto now = item.find("now");
    if (now != item.end() && now->is_string() && config::isHiddenProxyChoice(now->get<std::string>())) {
      *now = visible.empty() ? std::string() : visible.front();
    }
  }
  return item;
}

ClientProxyTable normalizeProxiesForClient(Json table, const config::ConfigOutline& outline) {
  if (!table.is_object()) return {std::move(table), std::nullopt};
  Json visible = Json::object();
  for (auto& [key, entry] : table.items()) {
    if (config::isHiddenProxyChoice(key)) continue;
    if (!entry.is_object()) {
      visible[key] = std::move(entry);
      continue;
    }
    if (auto kept = filteredProxyItem(std::move(entry))) visible[key] = std::move(*kept);
  }
  const std::string selector(kSelectorGroup);
  if (visible.contains(selector)) return {std::move(visible), std::nullopt};

  const auto main = resolveMainGroup(visible, outline);
  if (!main) return {std::move(visible), std::nullopt};
  Json copy = visible[*main];
  copy["name"] = selector;
  visible[selector] = std::move(copy);
  return {std::move(visible), *main};
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
