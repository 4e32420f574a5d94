#include "proxies/proxy_switch.h"

#include <chrono>

#include "base/constants.h"
#include "base/strings.h"
#include "proxies/server_list.h"
#include "proxies/traffic_path.h"

namespace qev::proxies {

ProxySwitch::ProxySwitch(controller::ControllerClient& controller, net::HttpSession& session,
                         ProxySelection& selection, const storage::SelectionMemory& memory,
                         const storage::SettingsStore& settings,
                         sysproxy::SystemProxyRequests& systemProxy, EnsureCore ensureCore,
                         ApplyConfig applyConfig, ReadOutline outline, const base::Logger& log,
                         std::string connectivityCheckUrl)
    : controller_(controller),
      session_(session),
      selection_(selection),
      memory_(memory),
      settings_(settings),
      systemProxy_(systemProxy),
      ensureCore_(std::move(ensureCore)),
      applyConfig_(std::move(applyConfig)),
      outline_(std::move(outline)),
      log_(log),
      connectivityCheckUrl_(std::move(connectivityCheckUrl)) {}

void ProxySwitch::getServers(Resolve resolve) {
  ensureCore_([this, resolve = std::move(resolve)](bool) {
    controller_.httpJSON(
        "GET", controller_.base() + "/proxies", std::nullopt, [this, resolve](Result<Json> reply) {
          if (!reply) {
            log_.message("native.getServers.error: " + reply.error().description);
            resolve(false);
            return;
          }
          Json& body = reply.value();
          if (!body.is_object() || !body.contains("proxies")) {
            log_.message("native.getServers.empty");
            resolve(false);
            return;
          }
          auto client = normalizeProxiesForClient(std::move(body["proxies"]), outline_());
          if (client.alias) {
            log_.message("native.getServers.alias: " + std::string(kSelectorGroup) + "->" +
                         *client.alias);
          }
          log_.message("native.getServers.ok: " + proxySummary(client.table));
          resolve(std::move(client.table));
        });
  });
}

void ProxySwitch::startProxy(Resolve resolve, Reject reject) {
  if (systemProxy_.isSystemProxyDesired()) {
    log_.message("native.startProxy.skip: already enabled");
    resolve(true);
    return;
  }
  applyConfig_(
      [this, resolve, reject](Json) {
        selection_.reapplyLastSelectedProxyIfNeeded([this, resolve, reject] {
          controller_.closeConnections([this, resolve, reject] {
            checkSelectedProxyConnectivity([this, resolve, reject](bool available) {
              if (!available) {
                auto error = BridgeError::native(8, "NODE_UNAVAILABLE");
                log_.message("native.startProxy.unavailable: " + error.description);
                reject(std::move(error));
                return;
              }
              systemProxy_.requestSystemProxy(true, "startProxy.confirm", [this, resolve] {
                log_.message("native.startProxy.ok");
                resolve(true);
              });
            });
          });
        });
      },
      [this, reject](BridgeError error) {
        log_.message("native.startProxy.error: " + error.description);
        reject(std::move(error));
      });
}

void ProxySwitch::stopProxy(Resolve resolve) {
  if (!systemProxy_.isSystemProxyDesired()) {
    log_.message("native.stopProxy.skip: already disabled");
    resolve(true);
    return;
  }
  systemProxy_.requestSystemProxy(false, "stopProxy", [this, resolve = std::move(resolve)] {
    log_.message("native.stopProxy.ok");
    resolve(true);
  });
}

void ProxySwitch::checkSelectedProxyConnectivity(BoolCompletion completion) {
  const auto remembered = memory_.get();
  if (!remembered.group.empty() && remembered.group != kSelectorGroup) {
    probeGroup(remembered.group, std::move(completion));
    return;
  }
  const std::string mode = settings_.readModeSetting();
  if (mode == "direct") {
    log_.message("native.proxy.health: available=true mode=direct");
    completion(true);
    return;
  }
  const config::ConfigOutline outline = outline_();
  if (auto entry = trafficEntry(mode, outline)) {
    probeGroup(*entry, std::move(completion));
    return;
  }
  // No catch-all rule: the main group is the best guess of where the traffic goes.
  controller_.httpJSON(
      "GET", controller_.base() + "/proxies", std::nullopt,
      [this, outline, completion = std::move(completion)](Result<Json> reply) mutable {
        const Json* table = proxyTableOf(reply);
        const auto main = table ? resolveMainGroup(*table, outline) : std::nullopt;
        probeGroup(main.value_or(std::string(kSelectorGroup)), std::move(completion));
      });
}

void ProxySwitch::probeGroup(const std::string& group, BoolCompletion completion) {
  net::HttpRequest probe;
  probe.url =
      controller::delayTestUrl(controller_.base(), "proxies", group, 6000, connectivityCheckUrl_);
  probe.timeout = std::chrono::seconds(8);
  controller_.authorize(probe);
  session_.send(std::move(probe), [this, group, completion = std::move(completion)](
                                      Result<net::HttpResponse> reply) {
    long status = 0;
    std::string delay = "none";
    bool available = false;
    if (reply) {
      status = reply.value().status;
      const Json body = base::parseJson(reply.value().body);
      if (status >= 200 && status <= 299 && body.is_object() && body.contains("delay")) {
        available = true;
        delay = body["delay"].dump();
      }
    }
    log_.message(std::string("native.proxy.health: available=") + base::boolText(available) +
                 " status=" + std::to_string(status) + " delay=" + delay + " group=" + group);
    completion(available);
  });
}

void ProxySwitch::restoreProxyIfNeeded(std::function<void(bool, std::string)> done) {
  if (!systemProxy_.isSystemProxyDesired()) return;
  log_.message("native.proxy.restore.start");
  const auto tell = [done](bool connected, const char* reason) {
    if (done) done(connected, reason);
  };
  ensureCore_([this, tell](bool ready) {
    if (!ready) {
      log_.message("native.proxy.restore.noController");
      // Nothing serves the proxy port: off for now, while the saved wish stays for next time.
      systemProxy_.suspend("startup.noController");
      tell(false, "coreStopped");
      return;
    }
    selection_.reapplyLastSelectedProxyIfNeeded([this, tell] {
      checkSelectedProxyConnectivity([this, tell](bool available) {
        if (available) {
          systemProxy_.requestSystemProxy(true, "startup.restore", [this, tell] {
            log_.message("native.proxy.restore.ok");
            tell(true, "restored");
          });
        } else {
          systemProxy_.requestSystemProxy(false, "startup.unavailable", [this, tell] {
            log_.message("native.proxy.restore.unavailable");
            tell(false, "nodeUnavailable");
          });
        }
      });
    });
  });
}

}  // namespace qev::proxies
