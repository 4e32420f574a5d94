#include "subscription.h"

#include <cctype>
#include <vector>

#include "php_json.h"

namespace fake_panel {
namespace {

using Json = nlohmann::ordered_json;

bool isNumeric(const std::string& text) {
  std::size_t i = 0;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  std::size_t digits = 0;
  while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) ++i, ++digits;
  if (i < text.size() && text[i] == '.') {
    ++i;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) ++i, ++digits;
  }
  if (digits == 0) return false;
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    ++i;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
    std::size_t exponent = 0;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) ++i, ++exponent;
    if (exponent == 0) return false;
  }
  return i == text.size();
}

bool looksLikeDate(const std::string& text) {
  return text.size() >= 8 && std::isdigit(static_cast<unsigned char>(text[0])) &&
         std::isdigit(static_cast<unsigned char>(text[1])) &&
         std::isdigit(static_cast<unsigned char>(text[2])) &&
         std::isdigit(static_cast<unsigned char>(text[3])) && text[4] == '-';
}

// The panel's nodes. Every generation serves ss, vmess and trojan; v2 panels add vless with
// REALITY, anytls, hysteria2 and tuic.
std::vector<Json> realNodes(Generation generation) {
  std::vector<Json> nodes;
  nodes.push_back({{"name", "香港01"},
                   {"type", "vmess"},
                   {"server", "hk1.qev-nodes.test"},
                   {"port", 443},
                   {"uuid", "3c1f6a52-8d4e-4b7a-9f20-6e5d4c3b2a10"},
                   {"alterId", 0},
                   {"cipher", "auto"},
                   {"udp", true},
                   {"tls", true},
                   {"network", "ws"},
                   {"ws-opts", {{"path", "/ws"}, {"headers", {{"Host", "hk1.qev-nodes.test"}}}}}});
  nodes.push_back({{"name", "日本02"},
                   {"type", "trojan"},
                   {"server", "jp2.qev-nodes.test"},
                   {"port", 443},
                   {"password", "trojan-demo-secret"},
                   {"udp", true},
                   {"sni", "jp2.qev-nodes.test"},
                   {"skip-cert-verify", false}});
  nodes.push_back({{"name", "US West 03"},
                   {"type", "ss"},
                   {"server", "us3.qev-nodes.test"},
                   {"port", 8388},
                   {"cipher", "aes-128-gcm"},
                   {"password", "ss-demo-secret"},
                   {"udp", true}});
  if (generation == Generation::kV1) {
    nodes.push_back({{"name", "韩国04"},
                     {"type", "ss"},
                     {"server", "kr4.qev-nodes.test"},
                     {"port", 8388},
                     {"cipher", "chacha20-ietf-poly1305"},
                     {"password", "ss-demo-secret"},
                     {"udp", true}});
    return nodes;
  }
  nodes.push_back({{"name", "新加坡04"},
                   {"type", "vless"},
                   {"server", "sg4.qev-nodes.test"},
                   {"port", 443},
                   {"uuid", "7d0e2a41-6b3c-4f58-a9e1-2c4d6f8a0b13"},
                   {"network", "tcp"},
                   {"tls", true},
                   {"udp", true},
                   {"flow", "xtls-rprx-vision"},
                   {"servername", "www.apple.com"},
                   {"reality-opts",
                    {{"public-key", "Zm9vYmFyLXB1YmxpYy1rZXktZm9yLXRlc3RzLW9ubHk"},
                     {"short-id", "6ba85179e30d4fc2"}}}});
  nodes.push_back({{"name", "台湾05"},
                   {"type", "anytls"},
                   {"server", "tw5.qev-nodes.test"},
                   {"port", 443},
                   {"password", "anytls-demo-secret"},
                   {"udp", true},
                   {"sni", "tw5.qev-nodes.test"},
                   {"skip-cert-verify", false}});
  nodes.push_back({{"name", "德国06"},
                   {"type", "hysteria2"},
                   {"server", "de6.qev-nodes.test"},
                   {"port", 8443},
                   {"password", "hy2-demo-secret"},
                   {"sni", "de6.qev-nodes.test"},
                   {"skip-cert-verify", false}});
  nodes.push_back({{"name", "US East 07"},
                   {"type", "tuic"},
                   {"server", "us7.qev-nodes.test"},
                   {"port", 443},
                   {"uuid", "0f9e8d7c-6b5a-4c3d-8e2f-1a0b9c8d7e6f"},
                   {"password", "tuic-demo-secret"},
                   {"alpn", {"h3"}},
                   {"congestion-controller", "bbr"},
                   {"udp-relay-mode", "native"},
                   {"sni", "us7.qev-nodes.test"}});
  return nodes;
}

std::vector<Json> infoNodes(const SubscriptionSource& source, const Json& firstNode) {
  std::vector<std::string> names = {"剩余流量：" + source.remaining};
  if (source.resetDays)
    names.push_back("距离下次重置剩余：" + std::to_string(*source.resetDays) + " 天");
  names.push_back("套餐到期：" + source.expiry);
  std::vector<Json> nodes;
  for (const auto& name : names) {
    Json copy = firstNode;
    copy["name"] = name;
    nodes.push_back(copy);
  }
  return nodes;
}

std::string document(const SubscriptionSource& source, const std::vector<Json>& nodes, bool meta) {
  std::vector<Json> all =
      source.infoNodes && !nodes.empty() ? infoNodes(source, nodes.front()) : std::vector<Json>{};
  all.insert(all.end(), nodes.begin(), nodes.end());
  Json allNames = Json::array();
  for (const auto& node : all) allNames.push_back(node["name"]);
  Json realNames = Json::array();
  for (const auto& node : nodes) realNames.push_back(node["name"]);
  Json siteMembers = Json::array({"自动选择", "故障转移", "DIRECT"});
  for (const auto& name : allNames) siteMembers.push_back(name);

  std::string out;
  out += "mixed-port: 7890\n";
  out += "allow-lan: true\n";
  out += "bind-address: " + yamlScalar("*") + "\n";
  out += "mode: rule\n";
  out += "log-level: info\n";
  out += "ipv6: true\n";
  out += "external-controller: " + yamlScalar("127.0.0.1:9090") + "\n";
  if (meta) out += "unified-delay: true\n";
  out += "dns:\n";
  out += "    enable: true\n";
  out += "    ipv6: false\n";
  out += "    default-nameserver: " + inlineYaml(Json::array({"223.5.5.5", "119.29.29.29"})) + "\n";
  out += "    enhanced-mode: fake-ip\n";
  out += "    fake-ip-range: 198.18.0.1/16\n";
  out += "    use-hosts: true\n";
  out +=
      "    nameserver: " +
      inlineYaml(Json::array({"https://doh.pub/dns-query", "https://dns.alidns.com/dns-query"})) +
      "\n";
  out += "    fallback: " +
         inlineYaml(Json::array({"https://doh.dns.sb/dns-query", "tls://8.8.4.4:853"})) + "\n";
  out += "    fallback-filter: " +
         inlineYaml(Json{{"geoip", true}, {"ipcidr", {"240.0.0.0/4", "0.0.0.0/32"}}}) + "\n";
  if (meta) {
    out += "tun:\n";
    out += "    enable: true\n";
    out += "    stack: system\n";
    out += "    auto-route: true\n";
    out += "    auto-detect-interface: true\n";
    out += "    dns-hijack: " + inlineYaml(Json::array({"any:53"})) + "\n";
  }
  out += "proxies:\n";
  for (const auto& node : all) out += "    - " + inlineYaml(node) + "\n";
  out += "proxy-groups:\n";
  const Json groups =
      Json::array({Json{{"name", source.siteName}, {"type", "select"}, {"proxies", siteMembers}},
                   Json{{"name", "自动选择"},
                        {"type", "url-test"},
                        {"proxies", allNames},
                        {"url", "http://www.gstatic.com/generate_204"},
                        {"interval", 86400}},
                   Json{{"name", "故障转移"},
                        {"type", "fallback"},
                        {"proxies", allNames},
                        {"url", "http://www.gstatic.com/generate_204"},
                        {"interval", 7200}},
                   Json{{"name", "QEV加速"}, {"type", "select"}, {"proxies", realNames}}});
  for (const auto& group : groups) out += "    - " + inlineYaml(group) + "\n";
  out += "rules:\n";
  std::vector<std::string> rules = {
      "DOMAIN," + source.panelHost + ",DIRECT", "DOMAIN-SUFFIX,qev-nodes.test,DIRECT",
      "IP-CIDR,127.0.0.0/8,DIRECT,no-resolve",  "IP-CIDR,192.168.0.0/16,DIRECT,no-resolve",
      "DOMAIN-KEYWORD,openai,QEV加速",          "DOMAIN-SUFFIX,google.com," + source.siteName};
  if (source.geoRules) {
    rules.push_back("GEOSITE,cn,DIRECT");
    rules.push_back("GEOIP,CN,DIRECT");
  }
  rules.push_back("MATCH," + source.siteName);
  for (const auto& rule : rules) out += "    - " + yamlScalar(rule) + "\n";
  return out;
}

std::string queryPart(const std::vector<std::pair<std::string, std::string>>& items) {
  std::string out;
  for (const auto& [key, value] : items) {
    out += (out.empty() ? "?" : "&") + key + "=" + rawUrlEncode(value);
  }
  return out;
}

std::string text(const Json& node, const char* key) {
  if (!node.contains(key)) return "";
  const Json& value = node[key];
  return value.is_string() ? value.get<std::string>() : value.dump();
}

std::string shareLink(const Json& node) {
  const std::string type = text(node, "type");
  const std::string host = text(node, "server") + ":" + text(node, "port");
  const std::string fragment = "#" + rawUrlEncode(text(node, "name"));
  if (type == "ss") {
    return "ss://" + base64(text(node, "cipher") + ":" + text(node, "password")) + "@" + host +
           fragment;
  }
  if (type == "vmess") {
    const Json body = {{"v", "2"},
                       {"ps", text(node, "name")},
                       {"add", text(node, "server")},
                       {"port", text(node, "port")},
                       {"id", text(node, "uuid")},
                       {"aid", "0"},
                       {"net", "ws"},
                       {"type", "none"},
                       {"host", text(node, "server")},
                       {"path", "/ws"},
                       {"tls", "tls"}};
    return "vmess://" + base64(body.dump());
  }
  if (type == "trojan") {
    return "trojan://" + rawUrlEncode(text(node, "password")) + "@" + host +
           queryPart(
               {{"allowInsecure", "0"}, {"peer", text(node, "sni")}, {"sni", text(node, "sni")}}) +
           fragment;
  }
  if (type == "vless") {
    return "vless://" + text(node, "uuid") + "@" + host +
           queryPart({{"type", "tcp"},
                      {"encryption", "none"},
                      {"security", "reality"},
                      {"pbk", text(node["reality-opts"], "public-key")},
                      {"sid", text(node["reality-opts"], "short-id")},
                      {"sni", text(node, "servername")},
                      {"fp", "chrome"},
                      {"flow", text(node, "flow")}}) +
           fragment;
  }
  if (type == "tuic") {
    return "tuic://" + text(node, "uuid") + ":" + rawUrlEncode(text(node, "password")) + "@" +
           host +
           queryPart({{"sni", text(node, "sni")}, {"alpn", "h3"}, {"congestion_control", "bbr"}}) +
           fragment;
  }
  return type + "://" + rawUrlEncode(text(node, "password")) + "@" + host +
         queryPart({{"sni", text(node, "sni")}}) + fragment;
}

}  // namespace

std::string yamlScalar(const std::string& text) {
  if (text.empty()) return "''";
  bool control = false;
  for (unsigned char c : text) control = control || c < 0x20 || c == 0x7f;
  if (control) {
    std::string out = "\"";
    for (unsigned char c : text) {
      if (c == '"' || c == '\\') {
        out += '\\';
        out += static_cast<char>(c);
      } else if (c == '\n') {
        out += "\\n";
      } else if (c == '\t') {
        out += "\\t";
      } else if (c < 0x20 || c == 0x7f) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
        out += escaped;
      } else {
        out += static_cast<char>(c);
      }
    }
    return out + "\"";
  }
  std::string lowered;
  for (char c : text)
    lowered.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  bool quote = text.find_first_of(" \t\r\n'\":{}[],&*#?") != std::string::npos ||
               std::string("-?|<>=!%@`").find(text.front()) != std::string::npos ||
               isNumeric(text) || looksLikeDate(text) || lowered == "null" || lowered == "~" ||
               lowered == "true" || lowered == "false" || lowered == "y" || lowered == "n" ||
               lowered == "yes" || lowered == "no" || lowered == "on" || lowered == "off";
  if (!quote) return text;
  std::string out = "'";
  for (char c : text) {
    if (c == '\'') out += '\'';
    out += c;
  }
  return out + "'";
}

std::string inlineYaml(const nlohmann::ordered_json& value) {
  if (value.is_object()) {
    std::string out = "{ ";
    bool first = true;
    for (auto it = value.begin(); it != value.end(); ++it) {
      if (!first) out += ", ";
      first = false;
      out += yamlScalar(it.key()) + ": " + inlineYaml(it.value());
    }
    return out + " }";
  }
  if (value.is_array()) {
    std::string out = "[";
    for (std::size_t i = 0; i < value.size(); ++i) out += (i ? ", " : "") + inlineYaml(value[i]);
    return out + "]";
  }
  if (value.is_string()) return yamlScalar(value.get<std::string>());
  if (value.is_null()) return "null";
  return value.dump();
}

std::string metaSubscription(const SubscriptionSource& source) {
  return document(source, realNodes(source.generation), true);
}

std::string classicSubscription(const SubscriptionSource& source) {
  std::vector<Json> nodes;
  for (const auto& node : realNodes(source.generation)) {
    const std::string type = node["type"].get<std::string>();
    if (type == "ss" || type == "vmess" || type == "trojan") nodes.push_back(node);
  }
  return document(source, nodes, false);
}

std::string shareLinkSubscription(const SubscriptionSource& source) {
  std::string links;
  for (const auto& node : realNodes(source.generation)) links += shareLink(node) + "\r\n";
  return base64(links);
}

}  // namespace fake_panel
