#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "config.h"

namespace fake_core {

// The core's proxy table: built-in outbounds, the file's proxies and groups, the built-in
// GLOBAL selector, each group's selection and each entry's delay history.
class ProxyTable {
 public:
  enum class SelectResult { kSelected, kNotFound, kNotSelectable, kNoSuchMember };

  // An empty table: what the controller shows before the first configuration is applied.
  ProxyTable() = default;
  // `remembered` maps group names to the member selected earlier (kept across reloads).
  ProxyTable(const CoreConfig& config, const std::map<std::string, std::string>& remembered);

  bool contains(const std::string& name) const { return entries_.count(name) > 0; }
  // {"<name>": entry, ...} with sorted keys.
  nlohmann::json toJson() const;
  std::optional<nlohmann::json> entryJson(const std::string& name) const;

  // What selecting `member` in `group` would give, without selecting.
  SelectResult checkSelect(const std::string& group, const std::string& member) const;
  SelectResult select(const std::string& group, const std::string& member);
  // Unpins a URLTest or Fallback group; false for any other entry.
  bool unpin(const std::string& group);

  // The names a delay test of `name` passes through: the name itself, then for a group its
  // current member, down to a node or built-in outbound. Relays contribute every member.
  std::vector<std::string> delayPath(const std::string& name) const;
  // The type of the last entry of a path ("Direct", "Reject", "Shadowsocks", ...).
  std::string typeOf(const std::string& name) const;
  // Appends a delay record (0 = failed) and updates `alive`, keeping the last ten records.
  void recordDelay(const std::string& name, int delayMs,
                   std::chrono::system_clock::time_point when);

 private:
  struct DelayRecord {
    std::chrono::system_clock::time_point time;
    int delay = 0;
  };
  struct Entry {
    std::string name;
    std::string type;
    bool udp = false;
    bool xudp = false;
    bool tfo = false;
    bool group = false;
    bool disableUdp = false;
    std::vector<std::string> all;
    std::string selected;  // chosen (Selector) or pinned (URLTest, Fallback) member; may be stale
    std::string testUrl;
    bool alive = true;
    std::vector<DelayRecord> history;
  };

  static bool selectable(const Entry& entry);
  std::string now(const Entry& entry) const;
  bool supportsUdp(const std::string& name, int depth) const;
  nlohmann::json render(const Entry& entry) const;
  void add(Entry entry);

  std::map<std::string, Entry> entries_;
};

}  // namespace fake_core
