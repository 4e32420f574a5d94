#include "proxies/proxy_selection.h"

#include <algorithm>

#include "base/constants.h"
#include "base/strings.h"
#include "controller/controller_reply.h"
#include "proxies/selection_args.h"
#include "proxies/server_list.h"

namespace qev::proxies {
namespace {

bool groupHolds(const Json& entry, const std::string& name) {
  if (!entry.is_object()) return false;
  const auto all = entry.find("all");
  return all != entry.end() && all->is_array() &&
         std::any_of(all->begin(), all->end(), [&](const Json& m) { return m == name; });
}

}  // namespace

ProxySelection::ProxySelection(controller::ControllerClient& controller, storage::SelectionMemory& memory,
                               const storage::SettingsStore& settings,
                               sysproxy::SystemProxyRequests& systemProxy, EnsureCore ensureCore,
                               const base::Logger& log)
    : controller_(controller),
      memory_(memory),
      settings_(settings),
      systemProxy_(systemProxy),
      ensureCore_(std::move(ensureCore)),
      log_(log) {}

void ProxySelection::setProxy(const Json& args, Resolve resolve, Reject reject) {
  const ProxyChoice choice = parseSetProxyArgs(args);
  if (choice.name.empty()) {
    log_.message("native.setProxy.missingName");
    resolve(false);
    return;
  }
  // Remembered before it is tried, so the choice survives a core that is down.
  memory_.set({choice.group, choice.name});
  saveLastSelectedProxy(choice.group, choice.name);
  ensureCore_([this, choice, resolve = std::move(resolve), reject = std::move(reject)](bool ready) {
    if (!ready) {
      log_.message("native.setProxy.noController");
      resolve(false);
      return;
    }
    selectProxy(choice.group, choice.name, [resolve, reject](std::optional<BridgeError> error) {
      if (error) {
        reject(std::move(*error));
      } else {
        resolve(true);
      }
    });
  });
}

void ProxySelection::selectProxy(std::string group, std::string name,
                                 std::function<void(std::optional<BridgeError>)> completion) {
  log_.message("native.setProxy.try: group=" + group + " name=" + name);
  const std::string url = controller_.base() + "/proxies/" + controller::percentEncodePathComponent(group);
  controller_.httpJSON(
      "PUT", url, Json{{"name", name}},
      [this, group, name, completion = std::move(completion)](Result<Json> reply) {
        auto error = controller::controllerChangeError(reply);
        if (!error) {
          finishSelection(group, name, completion);
          return;
        }
        findSelectorGroup(name, [this, group, name, completion,
                                 first = std::move(*error)](std::optional<std::string> found) {
          if (found && *found != group) {
            log_.message("native.setProxy.fallback: " + group + " -> " + *found);
            selectProxy(*found, name, completion);
            return;
          }
          log_.message("native.setProxy.error: " + first.description);
          completion(first);
        });
      });
}

void ProxySelection::finishSelection(const std::string& group, const std::string& name,
                                     std::function<void(std::optional<BridgeError>)> completion) {
  controller_.closeConnections([this, group, name, completion = std::move(completion)] {
    const std::string ok = "native.setProxy.ok: group=" + group + " name=" + name;
    if (!systemProxy_.isSystemProxyDesired()) {
      log_.message(ok);
      completion(std::nullopt);
      return;
    }
    systemProxy_.requestSystemProxy(true, "setProxy", [this, ok, completion] {
      log_.message(ok);
      completion(std::nullopt);
    });
  });
}

void ProxySelection::findSelectorGroup(const std::string& name,
                                       std::function<void(std::optional<std::string>)> completion) {
  controller_.httpJSON("GET", controller_.base() + "/proxies", std::nullopt,
                       [name, completion = std::move(completion)](Result<Json> reply) {
                         if (!reply || !reply.value().is_object() ||
                             !reply.value().contains("proxies") ||
                             !reply.value()["proxies"].is_object()) {
                           completion(std::nullopt);
                           return;
                         }
                         const Json& table = reply.value()["proxies"];
                         const std::string selector(kSelectorGroup);
                         if (table.contains(selector) && groupHolds(table[selector], name)) {
                           completion(selector);
                           return;
                         }
                         for (const auto& key : groupSearchOrder(table)) {
                           if (isSelectorEntry(table[key]) && groupHolds(table[key], name)) {
                             completion(key);
                             return;
                           }
                         }
                         completion(std::nullopt);
                       });
}

void ProxySelection::saveLastSelectedProxy(const std::string& group, const std::string& name) {
  const auto ec = settings_.update([&](Json& s) {
    s["lastSelectedProxyGroup"] = group;
    s["lastSelectedProxyName"] = name;
  });
  if (ec) log_.message("native.settings.saveSelected.error: " + ec.message());
}

void ProxySelection::reapplyLastSelectedProxyIfNeeded(DoneCompletion completion) {
  const auto remembered = memory_.get();
  const std::string group =
      remembered.group.empty() ? std::string(kSelectorGroup) : remembered.group;
  const std::string name(base::trimWhitespace(remembered.name));
  if (name.empty()) {
    completion();
    return;
  }
  selectProxy(group, name, [completion = std::move(completion)](auto) { completion(); });
}

}  // namespace qev::proxies
