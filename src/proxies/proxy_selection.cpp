#include "proxies/proxy_selection.h"

#include <algorithm>

#include "base/constants.h"
#include "base/strings.h"
#include "controller/controller_reply.h"
#include "proxies/selection_args.h"
#include "proxies/server_list.h"
#include "proxies/traffic_path.h"

namespace qev::proxies {
namespace {

bool groupHolds(const Json& entry, const std::string& name) {
  if (!entry.is_object()) return false;
  const auto all = entry.find("all");
  return all != entry.end() && all->is_array() &&
         std::any_of(all->begin(), all->end(), [&](const Json& m) { return m == name; });
}

// Groups that accept a PUT: selectors, and automatic groups (which it pins).
bool isSwitchableGroup(const Json& entry) {
  const std::string type = entry.is_object() ? entry.value("type", "") : "";
  return isSelectorEntry(entry) || type == "URLTest" || type == "Fallback";
}

}  // namespace

ProxySelection::ProxySelection(controller::ControllerClient& controller,
                               storage::SelectionMemory& memory,
                               const storage::SettingsStore& settings,
                               sysproxy::SystemProxyRequests& systemProxy, EnsureCore ensureCore,
                               ReadOutline outline, const base::Logger& log)
    : controller_(controller),
      memory_(memory),
      settings_(settings),
      systemProxy_(systemProxy),
      ensureCore_(std::move(ensureCore)),
      outline_(std::move(outline)),
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

void ProxySelection::selectProxy(std::string group, std::string name, Completion completion) {
  if (group.empty() || group == kSelectorGroup) {
    selectInMainGroup(name, std::move(completion));
    return;
  }
  putSelection(std::move(group), name,
               [this, name, completion = std::move(completion)](std::optional<BridgeError> error,
                                                                std::string taken) {
                 if (error) {
                   completion(std::move(error));
                 } else {
                   finishSelection(taken, name, completion);
                 }
               });
}

void ProxySelection::putSelection(std::string group, std::string name, SelectionDone done) {
  log_.message("native.setProxy.try: group=" + group + " name=" + name);
  const std::string url =
      controller_.base() + "/proxies/" + controller::percentEncodePathComponent(group);
  controller_.httpJSON(
      "PUT", url, Json{{"name", name}},
      [this, group, name, done = std::move(done)](Result<Json> reply) {
        auto error = controller::controllerChangeError(reply);
        if (!error) {
          done(std::nullopt, group);
          return;
        }
        findSelectorGroup(name, [this, group, name, done,
                                 first = std::move(*error)](std::optional<std::string> found) {
          if (found && *found != group) {
            log_.message("native.setProxy.fallback: " + group + " -> " + *found);
            putSelection(*found, name, done);
            return;
          }
          log_.message("native.setProxy.error: " + first.description);
          done(first, group);
        });
      });
}

void ProxySelection::selectInMainGroup(const std::string& name, Completion completion) {
  controller_.httpJSON("GET", controller_.base() + "/proxies", std::nullopt,
                       [this, name, completion = std::move(completion)](Result<Json> reply) {
                         const Json* table = proxyTableOf(reply);
                         const config::ConfigOutline outline = outline_();
                         const std::optional<std::string> main =
                             table ? resolveMainGroup(*table, outline) : std::nullopt;
                         // Each selector from the catch-all target points at the next one down to
                         // the main group.
                         std::vector<std::pair<std::string, std::string>> route;
                         if (table && main && outline.catchAllTarget) {
                           const std::string& target = *outline.catchAllTarget;
                           const auto path = selectorPath(*table, target, *main);
                           for (std::size_t i = 0; i + 1 < path.size(); ++i)
                             route.emplace_back(path[i], path[i + 1]);
                           // A catch-all target that the main group cannot be reached from, but
                           // that holds the node itself (a site group beside the product group, an
                           // automatic group), gets the pick as well, or the pick would carry
                           // nothing in rule mode.
                           const Json* targetEntry = proxyEntry(*table, target);
                           if (path.empty() && target != *main && targetEntry &&
                               isSwitchableGroup(*targetEntry) && groupHolds(*targetEntry, name)) {
                             route.emplace_back(target, name);
                           }
                         }
                         const Json* global = table ? proxyEntry(*table, "GLOBAL") : nullptr;
                         if (main && *main != "GLOBAL" && global && isSelectorEntry(*global)) {
                           route.emplace_back("GLOBAL", name);
                         }
                         putSelection(
                             main.value_or(std::string(kSelectorGroup)), name,
                             [this, name, route = std::move(route), completion](
                                 std::optional<BridgeError> error, std::string taken) mutable {
                               if (error) {
                                 completion(std::move(error));
                                 return;
                               }
                               putEach(std::move(route), 0, [this, taken, name, completion] {
                                 finishSelection(taken, name, completion);
                               });
                             });
                       });
}

void ProxySelection::putEach(std::vector<std::pair<std::string, std::string>> steps,
                             std::size_t next, DoneCompletion done) {
  if (next >= steps.size()) {
    done();
    return;
  }
  // Named copies: a lambda may not capture structured bindings before C++20 compilers catch up.
  std::string group = steps[next].first;
  std::string member = steps[next].second;
  controller_.httpJSON(
      "PUT", controller_.base() + "/proxies/" + controller::percentEncodePathComponent(group),
      Json{{"name", member}},
      [this, steps = std::move(steps), next, done = std::move(done), group,
       member](Result<Json> reply) mutable {
        if (auto error = controller::controllerChangeError(reply)) {
          log_.message("native.setProxy.route.error: " + group + " -> " + member + ": " +
                       error->description);
        } else {
          log_.message("native.setProxy.route: " + group + " -> " + member);
        }
        putEach(std::move(steps), next + 1, std::move(done));
      });
}

void ProxySelection::finishSelection(const std::string& group, const std::string& name,
                                     Completion completion) {
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
                         const Json* found = proxyTableOf(reply);
                         if (!found) {
                           completion(std::nullopt);
                           return;
                         }
                         const Json& table = *found;
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
