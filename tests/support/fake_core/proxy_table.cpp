#include "proxy_table.h"

#include <algorithm>

#include "core_log.h"

namespace fake_core {

bool ProxyTable::selectable(const Entry& entry) {
  return entry.type == "Selector" || entry.type == "URLTest" || entry.type == "Fallback";
}

void ProxyTable::add(Entry entry) {
  const std::string name = entry.name;
  entries_[name] = std::move(entry);
}

ProxyTable::ProxyTable(const CoreConfig& config,
                       const std::map<std::string, std::string>& remembered) {
  const auto builtIn = [this](const char* name, const char* type, bool udp) {
    Entry entry;
    entry.name = name;
    entry.type = type;
    entry.udp = udp;
    add(std::move(entry));
  };
  builtIn("DIRECT", "Direct", true);
  builtIn("REJECT", "Reject", true);
  builtIn("REJECT-DROP", "RejectDrop", true);
  builtIn("COMPATIBLE", "Compatible", false);
  builtIn("PASS", "Pass", true);

  std::vector<std::string> globalMembers = {"DIRECT", "REJECT"};
  for (const auto& proxy : config.proxies) {
    Entry entry;
    entry.name = proxy.name;
    entry.type = proxy.type;
    entry.udp = proxy.udp;
    entry.xudp = proxy.xudp;
    entry.tfo = proxy.tfo;
    add(std::move(entry));
    globalMembers.push_back(proxy.name);
  }
  bool fileDefinesGlobal = false;
  for (const auto& group : config.groups) {
    Entry entry;
    entry.name = group.name;
    entry.type = group.type;
    entry.group = true;
    entry.all = group.members;
    entry.testUrl = group.testUrl;
    entry.disableUdp = group.disableUdp;
    add(std::move(entry));
    globalMembers.push_back(group.name);
    fileDefinesGlobal = fileDefinesGlobal || group.name == "GLOBAL";
  }
  if (!fileDefinesGlobal) {
    Entry global;
    global.name = "GLOBAL";
    global.type = "Selector";
    global.group = true;
    global.all = globalMembers;
    add(std::move(global));
  }
  for (const auto& [group, member] : remembered) {
    auto it = entries_.find(group);
    if (it != entries_.end() && selectable(it->second)) it->second.selected = member;
  }
}

std::string ProxyTable::now(const Entry& entry) const {
  if (entry.all.empty()) return "";
  if (!entry.selected.empty() &&
      std::find(entry.all.begin(), entry.all.end(), entry.selected) != entry.all.end()) {
    return entry.selected;
  }
  return entry.all.front();
}

bool ProxyTable::supportsUdp(const std::string& name, int depth) const {
  const auto it = entries_.find(name);
  if (it == entries_.end() || depth > 32) return false;
  const Entry& entry = it->second;
  if (!entry.group) return entry.udp;
  if (entry.disableUdp) return false;
  if (entry.type == "Relay") {
    return std::all_of(entry.all.begin(), entry.all.end(),
                       [&](const std::string& member) { return supportsUdp(member, depth + 1); });
  }
  return supportsUdp(now(entry), depth + 1);
}

nlohmann::json ProxyTable::render(const Entry& entry) const {
  nlohmann::json history = nlohmann::json::array();
  for (const auto& record : entry.history) {
    history.push_back({{"time", rfc3339Nano(record.time)}, {"delay", record.delay}});
  }
  nlohmann::json out = {{"name", entry.name},
                        {"type", entry.type},
                        {"alive", entry.alive},
                        {"history", history},
                        {"extra", nlohmann::json::object()},
                        {"udp", entry.group ? supportsUdp(entry.name, 0) : entry.udp},
                        {"xudp", entry.xudp},
                        {"tfo", entry.tfo}};
  if (entry.group) {
    out["all"] = entry.all;
    if (selectable(entry)) out["now"] = now(entry);
    if (entry.type == "URLTest" || entry.type == "Fallback") out["testUrl"] = entry.testUrl;
  }
  return out;
}

nlohmann::json ProxyTable::toJson() const {
  nlohmann::json table = nlohmann::json::object();
  for (const auto& [name, entry] : entries_) table[name] = render(entry);
  return table;
}

std::optional<nlohmann::json> ProxyTable::entryJson(const std::string& name) const {
  const auto it = entries_.find(name);
  if (it == entries_.end()) return std::nullopt;
  return render(it->second);
}

ProxyTable::SelectResult ProxyTable::checkSelect(const std::string& group,
                                                 const std::string& member) const {
  const auto it = entries_.find(group);
  if (it == entries_.end()) return SelectResult::kNotFound;
  const Entry& entry = it->second;
  if (!selectable(entry)) return SelectResult::kNotSelectable;
  if (std::find(entry.all.begin(), entry.all.end(), member) == entry.all.end()) {
    return SelectResult::kNoSuchMember;
  }
  return SelectResult::kSelected;
}

ProxyTable::SelectResult ProxyTable::select(const std::string& group, const std::string& member) {
  const SelectResult result = checkSelect(group, member);
  if (result == SelectResult::kSelected) entries_[group].selected = member;
  return result;
}

bool ProxyTable::unpin(const std::string& group) {
  const auto it = entries_.find(group);
  if (it == entries_.end()) return false;
  if (it->second.type != "URLTest" && it->second.type != "Fallback") return false;
  it->second.selected.clear();
  return true;
}

std::vector<std::string> ProxyTable::delayPath(const std::string& name) const {
  std::vector<std::string> path;
  std::vector<std::string> pending = {name};
  while (!pending.empty() && path.size() < 64) {
    const std::string current = pending.back();
    pending.pop_back();
    path.push_back(current);
    const auto it = entries_.find(current);
    if (it == entries_.end() || !it->second.group) continue;
    const Entry& entry = it->second;
    if (entry.type == "Relay") {
      for (auto member = entry.all.rbegin(); member != entry.all.rend(); ++member) {
        pending.push_back(*member);
      }
    } else if (!entry.all.empty()) {
      pending.push_back(now(entry));
    }
  }
  return path;
}

std::string ProxyTable::typeOf(const std::string& name) const {
  const auto it = entries_.find(name);
  return it == entries_.end() ? "" : it->second.type;
}

void ProxyTable::recordDelay(const std::string& name, int delayMs,
                             std::chrono::system_clock::time_point when) {
  const auto it = entries_.find(name);
  if (it == entries_.end()) return;
  Entry& entry = it->second;
  entry.alive = delayMs > 0;
  entry.history.push_back(DelayRecord{when, delayMs});
  if (entry.history.size() > 10) entry.history.erase(entry.history.begin());
}

}  // namespace fake_core
