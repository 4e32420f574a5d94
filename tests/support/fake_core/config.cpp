#include "config.h"

#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>

#include "knobs.h"

namespace fake_core {
namespace {

// A load error; caught at the two entry points of this file only.
struct LoadError {
  std::string text;
};

std::string lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::string upper(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

int lineOf(const YAML::Node& node) {
  return node.Mark().line + 1;
}

// ---- scalars as the core's YAML decoder resolves them ----

std::optional<long long> plainInt(const std::string& text) {
  std::string digits;
  for (char c : text) {
    if (c != '_') digits.push_back(c);
  }
  if (digits.empty()) return std::nullopt;
  std::size_t start = (digits[0] == '+' || digits[0] == '-') ? 1 : 0;
  if (start >= digits.size()) return std::nullopt;
  int base = 10;
  std::string body = digits.substr(start);
  if (body.size() > 2 && body[0] == '0' && (body[1] == 'x' || body[1] == 'X')) {
    base = 16;
    body = body.substr(2);
  } else if (body.size() > 2 && body[0] == '0' && (body[1] == 'o' || body[1] == 'O')) {
    base = 8;
    body = body.substr(2);
  } else if (body.size() > 2 && body[0] == '0' && (body[1] == 'b' || body[1] == 'B')) {
    base = 2;
    body = body.substr(2);
  } else if (body.size() > 1 && body[0] == '0') {
    base = 8;
  }
  if (body.empty()) return std::nullopt;
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(body.c_str(), &end, base);
  if (errno != 0 || end == nullptr || *end != '\0') return std::nullopt;
  return digits[0] == '-' ? -value : value;
}

std::optional<bool> plainBool(const std::string& text) {
  static const std::set<std::string> yes = {"true", "True", "TRUE", "yes", "Yes", "YES",
                                            "on",   "On",   "ON",   "y",   "Y"};
  static const std::set<std::string> no = {"false", "False", "FALSE", "no", "No", "NO",
                                           "off",   "Off",   "OFF",   "n",  "N"};
  if (yes.count(text)) return true;
  if (no.count(text)) return false;
  return std::nullopt;
}

bool isQuoted(const YAML::Node& node) {
  return node.Tag() == "!";
}

std::string yamlTag(const YAML::Node& node) {
  if (node.IsMap()) return "!!map";
  if (node.IsSequence()) return "!!seq";
  if (node.IsNull()) return "!!null";
  if (isQuoted(node)) return "!!str";
  const std::string& text = node.Scalar();
  if (plainInt(text)) return "!!int";
  if (text == "true" || text == "false" || text == "True" || text == "False" || text == "TRUE" ||
      text == "FALSE") {
    return "!!bool";
  }
  char* end = nullptr;
  std::strtod(text.c_str(), &end);
  if (!text.empty() && end != nullptr && *end == '\0') return "!!float";
  return "!!str";
}

[[noreturn]] void unmarshalError(const YAML::Node& node, const std::string& into) {
  std::string what = "cannot unmarshal " + yamlTag(node);
  if (node.IsScalar()) what += " `" + node.Scalar() + "`";
  throw LoadError{"yaml: unmarshal errors:\n  line " + std::to_string(lineOf(node)) + ": " + what +
                  " into " + into};
}

// Every mapping of the document, checked for a key given twice.
void rejectDuplicateKeys(const YAML::Node& node) {
  if (node.IsMap()) {
    std::map<std::string, int> seen;
    for (auto it = node.begin(); it != node.end(); ++it) {
      if (it->first.IsScalar()) {
        const auto [where, fresh] = seen.emplace(it->first.Scalar(), lineOf(it->first));
        if (!fresh) {
          throw LoadError{"yaml: unmarshal errors:\n  line " + std::to_string(lineOf(it->first)) +
                          ": mapping key \"" + it->first.Scalar() + "\" already defined at line " +
                          std::to_string(where->second)};
        }
      }
      rejectDuplicateKeys(it->second);
    }
  } else if (node.IsSequence()) {
    for (const auto& item : node) rejectDuplicateKeys(item);
  }
}

// The value under `key`, or an undefined node when the key is absent (a default node would
// read as an explicit null).
YAML::Node member(const YAML::Node& map, const char* key) {
  if (map.IsMap()) {
    for (auto it = map.begin(); it != map.end(); ++it) {
      if (it->first.IsScalar() && it->first.Scalar() == key) return it->second;
    }
  }
  return YAML::Node(YAML::NodeType::Undefined);
}

bool present(const YAML::Node& node) {
  return node.IsDefined();
}

void readInt(const YAML::Node& map, const char* key, int& out) {
  const YAML::Node node = member(map, key);
  if (!present(node)) return;
  if (node.IsNull()) {
    out = 0;
    return;
  }
  if (!node.IsScalar() || isQuoted(node)) unmarshalError(node, "int");
  const auto value = plainInt(node.Scalar());
  if (!value || *value < INT32_MIN || *value > INT32_MAX) unmarshalError(node, "int");
  out = static_cast<int>(*value);
}

void readBool(const YAML::Node& map, const char* key, bool& out) {
  const YAML::Node node = member(map, key);
  if (!present(node)) return;
  if (node.IsNull()) {
    out = false;
    return;
  }
  if (!node.IsScalar() || isQuoted(node)) unmarshalError(node, "bool");
  const auto value = plainBool(node.Scalar());
  if (!value) unmarshalError(node, "bool");
  out = *value;
}

void readString(const YAML::Node& map, const char* key, std::string& out) {
  const YAML::Node node = member(map, key);
  if (!present(node)) return;
  if (node.IsNull()) {
    out.clear();
    return;
  }
  if (!node.IsScalar()) unmarshalError(node, "string");
  out = node.Scalar();
}

std::vector<std::string> readStringList(const YAML::Node& node) {
  std::vector<std::string> out;
  if (!present(node) || node.IsNull()) return out;
  if (!node.IsSequence()) unmarshalError(node, "[]string");
  for (const auto& item : node) {
    if (item.IsNull()) {
      out.emplace_back();
    } else if (item.IsScalar()) {
      out.push_back(item.Scalar());
    } else {
      unmarshalError(item, "string");
    }
  }
  return out;
}

// ---- proxies ----

struct ProxyKind {
  const char* display;
  std::vector<const char*> required;  // besides name
  bool alwaysUdp;
};

const std::map<std::string, ProxyKind>& proxyKinds() {
  static const std::map<std::string, ProxyKind> kinds = {
      {"ss", {"Shadowsocks", {"server", "port", "password", "cipher"}, false}},
      {"ssr",
       {"ShadowsocksR", {"server", "port", "password", "cipher", "obfs", "protocol"}, false}},
      {"vmess", {"Vmess", {"server", "port", "uuid", "alterId", "cipher"}, false}},
      {"vless", {"Vless", {"server", "port", "uuid"}, false}},
      {"trojan", {"Trojan", {"server", "port", "password"}, false}},
      {"hysteria", {"Hysteria", {"server"}, true}},
      {"hysteria2", {"Hysteria2", {"server"}, true}},
      {"tuic", {"Tuic", {"server", "port"}, true}},
      {"anytls", {"AnyTLS", {"server", "port", "password"}, false}},
      {"socks5", {"Socks5", {"server", "port"}, false}},
      {"http", {"Http", {"server", "port"}, false}},
      {"snell", {"Snell", {"server", "port", "psk"}, false}},
      {"wireguard", {"WireGuard", {}, true}},
      {"ssh", {"Ssh", {"server", "port", "username"}, false}},
      {"mieru", {"Mieru", {"server"}, false}},
      {"direct", {"Direct", {}, true}},
      {"dns", {"Dns", {}, true}},
  };
  return kinds;
}

bool truthy(const YAML::Node& map, const char* key) {
  const YAML::Node node = member(map, key);
  if (!present(node) || !node.IsScalar()) return false;
  return plainBool(node.Scalar()).value_or(false);
}

ProxyNode parseProxy(const YAML::Node& mapping, std::size_t index) {
  const std::string prefix = "proxy " + std::to_string(index) + ": ";
  if (!mapping.IsMap()) unmarshalError(mapping, "map[string]interface {}");
  const YAML::Node typeNode = member(mapping, "type");
  if (!present(typeNode) || !typeNode.IsScalar()) throw LoadError{prefix + "missing type"};
  const std::string type = typeNode.Scalar();
  const auto kind = proxyKinds().find(type);
  if (kind == proxyKinds().end()) throw LoadError{prefix + "unsupport proxy type: " + type};
  std::vector<const char*> required = {"name"};
  required.insert(required.end(), kind->second.required.begin(), kind->second.required.end());
  for (const char* key : required) {
    if (!present(member(mapping, key))) {
      throw LoadError{prefix + "key '" + key + "' missing"};
    }
  }
  const YAML::Node nameNode = member(mapping, "name");
  if (!nameNode.IsScalar()) throw LoadError{prefix + "key 'name' missing"};
  ProxyNode node;
  node.name = nameNode.Scalar();
  node.type = kind->second.display;
  node.udp = kind->second.alwaysUdp || truthy(mapping, "udp");
  node.tfo = truthy(mapping, "tfo");
  if (node.udp && (type == "vmess" || type == "vless")) {
    std::string encoding;
    if (const YAML::Node e = member(mapping, "packet-encoding"); present(e) && e.IsScalar()) {
      encoding = e.Scalar();
    }
    node.xudp =
        truthy(mapping, "xudp") || (type == "vless" && (encoding.empty() || encoding == "xudp"));
  }
  return node;
}

// ---- groups ----

const std::map<std::string, std::string>& groupKinds() {
  static const std::map<std::string, std::string> kinds = {{"select", "Selector"},
                                                           {"url-test", "URLTest"},
                                                           {"fallback", "Fallback"},
                                                           {"load-balance", "LoadBalance"},
                                                           {"relay", "Relay"}};
  return kinds;
}

constexpr const char* kDefaultTestUrl = "https://www.gstatic.com/generate_204";

const std::set<std::string>& builtInNames() {
  static const std::set<std::string> names = {"DIRECT", "REJECT", "REJECT-DROP", "COMPATIBLE",
                                              "PASS"};
  return names;
}

void rejectGroupLoops(const std::vector<ProxyGroup>& groups) {
  std::map<std::string, const ProxyGroup*> byName;
  for (const auto& group : groups) byName[group.name] = &group;
  enum class Mark { kNone, kActive, kDone };
  std::map<std::string, Mark> marks;
  std::vector<std::string> stack;
  std::function<void(const std::string&)> visit = [&](const std::string& name) {
    marks[name] = Mark::kActive;
    stack.push_back(name);
    for (const auto& next : byName.at(name)->members) {
      if (!byName.count(next)) continue;
      if (marks[next] == Mark::kActive) {
        std::string cycle;
        auto from = std::find(stack.begin(), stack.end(), next);
        for (auto it = from; it != stack.end(); ++it) cycle += (cycle.empty() ? "" : " ") + *it;
        throw LoadError{"loop is detected in ProxyGroup, please check following ProxyGroups: [" +
                        cycle + "]"};
      }
      if (marks[next] == Mark::kNone) visit(next);
    }
    stack.pop_back();
    marks[name] = Mark::kDone;
  };
  for (const auto& group : groups) {
    if (marks[group.name] == Mark::kNone) visit(group.name);
  }
}

std::vector<ProxyGroup> parseGroups(const YAML::Node& list, const std::vector<ProxyNode>& proxies) {
  std::vector<ProxyGroup> groups;
  if (!present(list) || list.IsNull()) return groups;
  if (!list.IsSequence()) unmarshalError(list, "[]map[string]interface {}");
  std::set<std::string> proxyNames = builtInNames();
  std::vector<std::string> allProxies;
  for (const auto& proxy : proxies) {
    proxyNames.insert(proxy.name);
    allProxies.push_back(proxy.name);
  }
  std::size_t index = 0;
  for (const auto& mapping : list) {
    if (!mapping.IsMap()) unmarshalError(mapping, "map[string]interface {}");
    const YAML::Node nameNode = member(mapping, "name");
    if (!present(nameNode) || !nameNode.IsScalar()) {
      throw LoadError{"proxy group " + std::to_string(index) + ": missing name"};
    }
    ProxyGroup group;
    group.name = nameNode.Scalar();
    groups.push_back(group);
    ++index;
  }
  std::set<std::string> groupNames;
  for (const auto& group : groups) groupNames.insert(group.name);

  index = 0;
  for (const auto& mapping : list) {
    ProxyGroup& group = groups[index];
    const std::string prefix = "proxy group[" + std::to_string(index) + "]: " + group.name + ": ";
    std::string type;
    if (const YAML::Node typeNode = member(mapping, "type");
        present(typeNode) && typeNode.IsScalar()) {
      type = typeNode.Scalar();
    }
    const auto kind = groupKinds().find(type);
    if (kind == groupKinds().end()) throw LoadError{prefix + "unsupported type: " + type};
    group.type = kind->second;
    group.members = readStringList(member(mapping, "proxies"));
    if (truthy(mapping, "include-all") || truthy(mapping, "include-all-proxies")) {
      for (const auto& name : allProxies) {
        if (std::find(group.members.begin(), group.members.end(), name) == group.members.end()) {
          group.members.push_back(name);
        }
      }
    }
    const std::vector<std::string> providers = readStringList(member(mapping, "use"));
    if (!providers.empty()) throw LoadError{prefix + "'" + providers.front() + "' not found"};
    if (group.members.empty()) throw LoadError{prefix + "`use` or `proxies` missing"};
    for (const auto& name : group.members) {
      if (!proxyNames.count(name) && !groupNames.count(name)) {
        throw LoadError{prefix + "'" + name + "' not found"};
      }
    }
    if (group.type == "URLTest" || group.type == "Fallback") {
      group.testUrl = kDefaultTestUrl;
      readString(mapping, "url", group.testUrl);
      if (group.testUrl.empty()) group.testUrl = kDefaultTestUrl;
    }
    group.disableUdp = truthy(mapping, "disable-udp");
    ++index;
  }
  rejectGroupLoops(groups);
  std::set<std::string> taken = proxyNames;
  for (const auto& group : groups) {
    if (!taken.insert(group.name).second) {
      throw LoadError{"proxy group " + group.name + ": the duplicate name"};
    }
  }
  return groups;
}

// ---- rules ----

const std::set<std::string>& ruleTypes() {
  static const std::set<std::string> types = {"DOMAIN",
                                              "DOMAIN-SUFFIX",
                                              "DOMAIN-KEYWORD",
                                              "DOMAIN-REGEX",
                                              "DOMAIN-WILDCARD",
                                              "GEOSITE",
                                              "GEOIP",
                                              "SRC-GEOIP",
                                              "IP-ASN",
                                              "SRC-IP-ASN",
                                              "IP-CIDR",
                                              "IP-CIDR6",
                                              "SRC-IP-CIDR",
                                              "IP-SUFFIX",
                                              "SRC-IP-SUFFIX",
                                              "SRC-PORT",
                                              "DST-PORT",
                                              "IN-PORT",
                                              "IN-USER",
                                              "IN-NAME",
                                              "IN-TYPE",
                                              "DSCP",
                                              "PROCESS-NAME",
                                              "PROCESS-PATH",
                                              "PROCESS-NAME-REGEX",
                                              "PROCESS-PATH-REGEX",
                                              "PROCESS-NAME-WILDCARD",
                                              "PROCESS-PATH-WILDCARD",
                                              "UID",
                                              "NETWORK",
                                              "RULE-SET",
                                              "AND",
                                              "OR",
                                              "NOT",
                                              "SUB-RULE",
                                              "MATCH"};
  return types;
}

bool isLogic(const std::string& type) {
  return type == "AND" || type == "OR" || type == "NOT";
}

std::vector<std::string> splitFields(const std::string& line) {
  std::vector<std::string> fields;
  std::stringstream stream(line);
  for (std::string field; std::getline(stream, field, ',');) fields.push_back(trim(field));
  if (!line.empty() && line.back() == ',') fields.emplace_back();
  return fields;
}

// Checks the sub-rules of a logic payload such as "((NETWORK,UDP),(DST-PORT,443))"; the
// problem's text, or none when the payload is well formed.
std::optional<std::string> logicPayloadError(const std::string& type, const std::string& payload) {
  if (payload.size() < 2 || payload.front() != '(' || payload.back() != ')') {
    return "payload format error";
  }
  const std::string inner = payload.substr(1, payload.size() - 2);
  std::vector<std::string> subRules;
  int depth = 0;
  std::size_t start = 0;
  for (std::size_t i = 0; i < inner.size(); ++i) {
    if (inner[i] == '(') {
      if (depth == 0) start = i + 1;
      ++depth;
    } else if (inner[i] == ')') {
      if (depth == 0) return "format invalid, can't find the left parenthesis";
      --depth;
      if (depth == 0) subRules.push_back(inner.substr(start, i - start));
    }
  }
  if (depth != 0) return "format invalid, can't find the right parenthesis";
  if (subRules.empty()) return "logic rule has no sub-rule";
  if (type == "NOT" && subRules.size() != 1) return "not rule must contain one rule";
  for (const auto& sub : subRules) {
    const auto comma = sub.find(',');
    const std::string subType = upper(trim(sub.substr(0, comma)));
    if (subType == "MATCH" || subType == "SUB-RULE" || !ruleTypes().count(subType)) {
      return "unsupported rule type: " + subType;
    }
    if (isLogic(subType)) {
      if (comma == std::string::npos) return "payload format error";
      if (auto error = logicPayloadError(subType, trim(sub.substr(comma + 1)))) return error;
    }
  }
  return std::nullopt;
}

bool hasDatabase(const std::filesystem::path& homeDir, std::initializer_list<const char*> names) {
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(homeDir, ec)) {
    const std::string fileName = lower(entry.path().filename().string());
    for (const char* name : names) {
      if (fileName == lower(name) && entry.is_regular_file(ec) && entry.file_size(ec) > 0)
        return true;
    }
  }
  return false;
}

std::vector<std::string> parseRules(const YAML::Node& list, const std::set<std::string>& targets,
                                    const std::set<std::string>& ruleSets,
                                    const std::set<std::string>& subRuleNames, bool geodataMode,
                                    const std::filesystem::path& homeDir) {
  std::vector<std::string> rules;
  if (!present(list) || list.IsNull()) return rules;
  if (!list.IsSequence()) unmarshalError(list, "[]string");
  std::size_t index = 0;
  for (const auto& item : list) {
    if (!item.IsScalar()) unmarshalError(item, "string");
    const std::string line = item.Scalar();
    const std::string prefix = "rules[" + std::to_string(index) + "] [" + line + "] error: ";
    std::vector<std::string> rule = splitFields(line);
    const std::string type = upper(rule.empty() ? "" : rule[0]);
    std::string payload;
    std::string target;
    if (isLogic(type) || type == "SUB-RULE" || type == "DOMAIN-REGEX" ||
        type == "PROCESS-NAME-REGEX" || type == "PROCESS-PATH-REGEX") {
      if (rule.size() < 2) throw LoadError{prefix + "format invalid"};
      target = rule.back();
      for (std::size_t i = 1; i + 1 < rule.size(); ++i) payload += (i > 1 ? "," : "") + rule[i];
    } else {
      if (rule.size() < 2) throw LoadError{prefix + "format invalid"};
      if (type == "MATCH") {
        target = rule[1];
      } else {
        if (rule.size() < 3) rule.resize(3);
        payload = rule[1];
        target = rule[2];
      }
    }
    if (type == "SUB-RULE") {
      if (!subRuleNames.count(target))
        throw LoadError{prefix + "sub-rule [" + target + "] not found"};
    } else if (!targets.count(target)) {
      throw LoadError{prefix + "proxy [" + target + "] not found"};
    }
    if (!ruleTypes().count(type)) throw LoadError{prefix + "unsupported rule type: " + rule[0]};
    if (isLogic(type)) {
      if (auto error = logicPayloadError(type, payload)) throw LoadError{prefix + *error};
    }
    if (type == "RULE-SET" && !ruleSets.count(payload)) {
      throw LoadError{prefix + "rule set [" + payload + "] not found"};
    }
    const bool needsGeoIp = (type == "GEOIP" || type == "SRC-GEOIP") && lower(payload) != "lan";
    if (needsGeoIp && !(geodataMode ? hasDatabase(homeDir, {"GeoIP.dat"})
                                    : hasDatabase(homeDir, {"Country.mmdb", "geoip.metadb"}))) {
      throw LoadError{prefix + "can't initial GeoIP: can't download " +
                      std::string(geodataMode ? "GeoIP.dat" : "MMDB") +
                      ": the database is missing and this machine has no network"};
    }
    if (type == "GEOSITE" && !hasDatabase(homeDir, {"GeoSite.dat"})) {
      throw LoadError{prefix +
                      "can't initial GeoSite: can't download GeoSite.dat: the database is "
                      "missing and this machine has no network"};
    }
    if ((type == "IP-ASN" || type == "SRC-IP-ASN") &&
        !hasDatabase(homeDir, {"GeoLite2-ASN.mmdb", "ASN.mmdb"})) {
      throw LoadError{prefix +
                      "can't initial ASN: can't download ASN.mmdb: the database is "
                      "missing and this machine has no network"};
    }
    rules.push_back(line);
    ++index;
  }
  return rules;
}

std::set<std::string> keysOf(const YAML::Node& map) {
  std::set<std::string> keys;
  if (!map.IsMap()) return keys;
  for (auto it = map.begin(); it != map.end(); ++it) {
    if (it->first.IsScalar()) keys.insert(it->first.Scalar());
  }
  return keys;
}

TunSettings parseTun(const YAML::Node& node) {
  TunSettings tun;
  if (!present(node) || node.IsNull()) return tun;
  if (!node.IsMap()) unmarshalError(node, "config.RawTun");
  readBool(node, "enable", tun.enable);
  readString(node, "device", tun.device);
  std::string stack;
  readString(node, "stack", stack);
  if (!stack.empty()) {
    const std::string lowered = lower(stack);
    if (lowered == "gvisor") {
      tun.stack = "gVisor";
    } else if (lowered == "system") {
      tun.stack = "System";
    } else if (lowered == "mixed") {
      tun.stack = "Mixed";
    } else {
      throw LoadError{"invalid tun stack"};
    }
  }
  readBool(node, "auto-route", tun.autoRoute);
  readBool(node, "auto-detect-interface", tun.autoDetectInterface);
  tun.dnsHijack = readStringList(member(node, "dns-hijack"));
  return tun;
}

CoreConfig parse(const std::string& text, const std::filesystem::path& homeDir) {
  YAML::Node root;
  try {
    root = YAML::Load(text);
  } catch (const YAML::Exception& e) {
    throw LoadError{"yaml: line " + std::to_string(e.mark.line + 1) + ": " + e.msg};
  }
  CoreConfig config;
  if (root.IsNull() || !root.IsDefined()) return config;
  if (!root.IsMap()) unmarshalError(root, "config.RawConfig");
  rejectDuplicateKeys(root);

  readInt(root, "port", config.port);
  readInt(root, "socks-port", config.socksPort);
  readInt(root, "mixed-port", config.mixedPort);
  readBool(root, "allow-lan", config.allowLan);
  readString(root, "bind-address", config.bindAddress);
  readString(root, "external-controller", config.externalController);
  readString(root, "secret", config.secret);
  if (const YAML::Node listeners = member(root, "listeners");
      present(listeners) && listeners.IsSequence()) {
    for (const auto& listener : listeners) {
      if (!listener.IsMap() || !present(member(listener, "port"))) continue;
      std::string host = "0.0.0.0";
      readString(listener, "listen", host);
      config.extraInbounds.emplace_back(host, member(listener, "port").as<int>());
    }
  }
  if (const YAML::Node tunnels = member(root, "tunnels");
      present(tunnels) && tunnels.IsSequence()) {
    for (const auto& tunnel : tunnels) {
      // "tcp/udp,127.0.0.1:6553,8.8.8.8:53,proxy" or a map with `address`.
      std::string address;
      if (tunnel.IsScalar()) {
        const std::string text = tunnel.Scalar();
        const auto first = text.find(',');
        address = text.substr(first + 1, text.find(',', first + 1) - first - 1);
      } else if (tunnel.IsMap()) {
        readString(tunnel, "address", address);
      }
      const auto colon = address.rfind(':');
      if (colon == std::string::npos) continue;
      config.extraInbounds.emplace_back(address.substr(0, colon),
                                        std::stoi(address.substr(colon + 1)));
    }
  }
  if (const YAML::Node cors = member(root, "external-controller-cors");
      present(cors) && cors.IsMap()) {
    if (const YAML::Node origins = member(cors, "allow-origins"); present(origins)) {
      if (!origins.IsSequence()) unmarshalError(origins, "[]string");
      config.corsOrigins.clear();
      for (const auto& origin : origins) config.corsOrigins.push_back(origin.as<std::string>());
    }
    readBool(cors, "allow-private-network", config.corsPrivateNetwork);
  }
  readBool(root, "ipv6", config.ipv6);
  readBool(root, "geo-auto-update", config.geoAutoUpdate);
  bool geodataMode = false;
  readBool(root, "geodata-mode", geodataMode);
  if (const YAML::Node node = member(root, "mode"); present(node) && !node.IsNull()) {
    if (!node.IsScalar()) unmarshalError(node, "string");
    const auto mode = modeFromName(node.Scalar());
    if (!mode) throw LoadError{"invalid mode"};
    config.mode = *mode;
  }
  if (const YAML::Node node = member(root, "log-level"); present(node) && !node.IsNull()) {
    if (!node.IsScalar()) unmarshalError(node, "string");
    const auto level = logLevelFromName(node.Scalar());
    if (!level) throw LoadError{"invalid log level"};
    config.logLevel = *level;
  }
  config.tun = parseTun(member(root, "tun"));

  const YAML::Node proxyList = member(root, "proxies");
  if (present(proxyList) && !proxyList.IsNull()) {
    if (!proxyList.IsSequence()) unmarshalError(proxyList, "[]map[string]interface {}");
    std::set<std::string> taken = builtInNames();
    std::size_t index = 0;
    for (const auto& mapping : proxyList) {
      ProxyNode node = parseProxy(mapping, index++);
      if (!taken.insert(node.name).second) {
        throw LoadError{"proxy " + node.name + " is the duplicate name"};
      }
      config.proxies.push_back(std::move(node));
    }
  }
  config.groups = parseGroups(member(root, "proxy-groups"), config.proxies);

  std::set<std::string> targets = builtInNames();
  targets.insert("GLOBAL");
  for (const auto& proxy : config.proxies) targets.insert(proxy.name);
  for (const auto& group : config.groups) targets.insert(group.name);
  config.rules = parseRules(member(root, "rules"), targets, keysOf(member(root, "rule-providers")),
                            keysOf(member(root, "sub-rules")), geodataMode, homeDir);

  if (const YAML::Node dns = member(root, "dns"); present(dns) && dns.IsMap()) {
    bool enable = false;
    readBool(dns, "enable", enable);
    const std::vector<std::string> servers = readStringList(member(dns, "nameserver"));
    if (enable && servers.empty()) {
      throw LoadError{"if DNS configuration is turned on, NameServer cannot be empty"};
    }
  }
  return config;
}

}  // namespace

std::optional<Mode> modeFromName(std::string_view name) {
  const std::string lowered = lower(name);
  if (lowered == "rule") return Mode::kRule;
  if (lowered == "global") return Mode::kGlobal;
  if (lowered == "direct") return Mode::kDirect;
  return std::nullopt;
}

std::string modeName(Mode mode) {
  switch (mode) {
    case Mode::kRule:
      return "rule";
    case Mode::kGlobal:
      return "global";
    case Mode::kDirect:
      return "direct";
  }
  return "rule";
}

LoadResult parseCoreConfig(const std::string& text, const std::filesystem::path& homeDir) {
  try {
    return LoadResult{parse(text, homeDir), ""};
  } catch (const LoadError& error) {
    return LoadResult{std::nullopt, error.text};
  } catch (const YAML::Exception& error) {
    return LoadResult{std::nullopt, "yaml: " + std::string(error.what())};
  }
}

LoadResult loadCoreConfigFile(const std::filesystem::path& path,
                              const std::filesystem::path& homeDir) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    const int err = errno;
    std::string reason = std::strerror(err == 0 ? ENOENT : err);
    if (!reason.empty())
      reason[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(reason[0])));
    return LoadResult{std::nullopt, "open " + path.string() + ": " + reason};
  }
  std::ostringstream content;
  content << file.rdbuf();
  const std::string text = content.str();
  if (text.empty()) {
    return LoadResult{std::nullopt, "configuration file " + path.string() + " is empty"};
  }
  return parseCoreConfig(text, homeDir);
}

}  // namespace fake_core
