#include "proxies/live_commands.h"

#include <memory>
#include <utility>

#include "base/constants.h"
#include "proxies/server_list.h"
#include "proxies/traffic_path.h"

namespace qev::proxies {
namespace {

using base::stringField;

constexpr auto kConnectionsFreshFor = std::chrono::seconds(1);
constexpr int kDelayTimeoutMs = 5000;

Json numberOrNull(const Json& object, const char* key) {
  const auto it = object.find(key);
  return it != object.end() && it->is_number() ? *it : Json(nullptr);
}

}  // namespace

Json connectionsForPage(const Json& coreReply) {
  Json list = Json::array();
  const auto connections = coreReply.find("connections");
  if (connections != coreReply.end() && connections->is_array()) {
    for (const auto& item : *connections) {
      if (!item.is_object()) continue;
      const Json metadata = item.value("metadata", Json::object());
      if (!metadata.is_object()) continue;
      const std::string address = stringField(metadata, "destinationIP");
      std::string host = stringField(metadata, "host");
      if (host.empty()) host = address;
      const std::string port = stringField(metadata, "destinationPort");
      std::string rule = stringField(item, "rule");
      const std::string payload = stringField(item, "rulePayload");
      if (!payload.empty()) rule += "(" + payload + ")";
      const auto chains = item.find("chains");
      list.push_back(
          {{"id", stringField(item, "id")},
           {"host", host},
           {"destination", (address.empty() ? host : address) + ":" + port},
           {"network", stringField(metadata, "network")},
           {"chains", chains != item.end() && chains->is_array() ? *chains : Json::array()},
           {"rule", rule},
           {"upload", numberOrNull(item, "upload")},
           {"download", numberOrNull(item, "download")},
           {"start", stringField(item, "start")}});
    }
  }
  return {{"connections", std::move(list)},
          {"uploadTotal", numberOrNull(coreReply, "uploadTotal")},
          {"downloadTotal", numberOrNull(coreReply, "downloadTotal")}};
}

LiveCommands::LiveCommands(controller::ControllerClient& controller,
                           const controller::LiveFeed& feed, ReadOutline outline,
                           std::string appVersion, std::string delayTestUrl)
    : controller_(controller),
      feed_(feed),
      outline_(std::move(outline)),
      appVersion_(std::move(appVersion)),
      delayTestUrl_(std::move(delayTestUrl)) {}

void LiveCommands::getTraffic(const Resolve& resolve) const {
  resolve(feed_.traffic());
}

void LiveCommands::getConnections(Resolve resolve) {
  {
    std::lock_guard lock(connectionsMutex_);
    if (connections_ && std::chrono::steady_clock::now() - fetchedAt_ < kConnectionsFreshFor) {
      resolve(*connections_);
      return;
    }
  }
  controller_.httpJSON("GET", controller_.base() + "/connections", std::nullopt,
                       [this, resolve = std::move(resolve)](const Result<Json>& reply) {
                         if (!reply || !reply.value().is_object()) {
                           // No core, no connections.
                           resolve(connectionsForPage(Json::object()));
                           return;
                         }
                         Json page = connectionsForPage(reply.value());
                         {
                           std::lock_guard lock(connectionsMutex_);
                           connections_ = page;
                           fetchedAt_ = std::chrono::steady_clock::now();
                         }
                         resolve(std::move(page));
                       });
}

void LiveCommands::forgetConnections() {
  std::lock_guard lock(connectionsMutex_);
  connections_.reset();
}

void LiveCommands::closeConnection(const Json& args, Resolve resolve, Reject reject) {
  const Json* arg = base::firstArg(args);
  const std::string id = arg && arg->is_string() ? arg->get<std::string>() : std::string();
  if (id.empty()) {
    reject(BridgeError::invalidRequest());
    return;
  }
  forgetConnections();
  controller_.httpJSON(
      "DELETE", controller_.base() + "/connections/" + controller::percentEncodePathComponent(id),
      std::nullopt, [resolve = std::move(resolve)](const Result<Json>&) { resolve(true); });
}

void LiveCommands::closeAllConnections(Resolve resolve) {
  forgetConnections();
  controller_.closeConnections([resolve = std::move(resolve)] { resolve(true); });
}

void LiveCommands::getLogs(const Json& args, const Resolve& resolve) const {
  const Json* arg = base::firstArg(args);
  const std::string level = arg && arg->is_string() ? arg->get<std::string>() : "info";
  resolve(feed_.logs(level));
}

void LiveCommands::testDelay(const Json& args, Resolve resolve, Reject reject) {
  const Json* arg = base::firstArg(args);
  const Json* target = arg && arg->is_object() ? arg : nullptr;
  const std::string group = target ? stringField(*target, "group") : std::string();
  const std::string name = target ? stringField(*target, "name") : std::string();
  if (!group.empty()) {
    testGroup(group, std::move(resolve), std::move(reject));
    return;
  }
  if (name.empty()) {
    reject(BridgeError::invalidRequest());
    return;
  }
  const std::string url =
      controller::delayTestUrl(controller_.base(), "proxies", name, kDelayTimeoutMs, delayTestUrl_);
  controller_.httpJSON(
      "GET", url, std::nullopt, [name, resolve = std::move(resolve)](const Result<Json>& reply) {
        const bool measured = reply && reply.value().is_object();
        resolve(Json{{name, measured ? numberOrNull(reply.value(), "delay") : Json(nullptr)}});
      });
}

void LiveCommands::testGroup(const std::string& group, Resolve resolve, Reject reject) {
  // The members first (the core's answer lists only those that answered); the page knows the
  // main group by the name the server list gave it, SELECT.
  controller_.httpJSON("GET", controller_.base() + "/proxies", std::nullopt,
                       [this, group, resolve = std::move(resolve),
                        reject = std::move(reject)](const Result<Json>& reply) {
                         const Json* table = proxyTableOf(reply);
                         std::optional<std::string> name;
                         if (table != nullptr) {
                           if (proxyEntry(*table, group) != nullptr) {
                             name = group;
                           } else if (group == kSelectorGroup) {
                             name = resolveMainGroup(*table, outline_());
                           }
                         }
                         const Json* entry = name ? proxyEntry(*table, *name) : nullptr;
                         const auto all = entry ? entry->find("all") : Json::const_iterator();
                         if (entry == nullptr || all == entry->end() || !all->is_array()) {
                           reject(BridgeError::native(3, "not a proxy group"));
                           return;
                         }
                         auto result = std::make_shared<Json>(Json::object());
                         for (const auto& member : *all) {
                           if (member.is_string()) (*result)[member.get<std::string>()] = nullptr;
                         }
                         const std::string url = controller::delayTestUrl(
                             controller_.base(), "group", *name, kDelayTimeoutMs, delayTestUrl_);
                         controller_.httpJSON(
                             "GET", url, std::nullopt,
                             [result, resolve](const Result<Json>& delays) {
                               if (delays && delays.value().is_object()) {
                                 for (const auto& [member, delay] : delays.value().items()) {
                                   if (result->contains(member) && delay.is_number()) {
                                     (*result)[member] = delay;
                                   }
                                 }
                               }
                               resolve(std::move(*result));
                             });
                       });
}

void LiveCommands::getVersion(Resolve resolve) {
  controller_.httpJSON("GET", controller_.base() + "/version", std::nullopt,
                       [this, resolve = std::move(resolve)](const Result<Json>& reply) {
                         Json core = nullptr;
                         if (reply && reply.value().is_object()) {
                           const auto version = reply.value().find("version");
                           if (version != reply.value().end() && version->is_string()) {
                             core = *version;
                           }
                         }
                         resolve(Json{{"app", appVersion_}, {"core", core}});
                       });
}

}  // namespace qev::proxies
