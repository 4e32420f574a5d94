#include "subscription/config_commands.h"

#include <chrono>

#include "base/constants.h"
#include "base/strings.h"
#include "config/routing_mode.h"
#include "config/subscription_check.h"
#include "net/url.h"
#include "proxies/selection_args.h"
#include "subscription/subscribe_link.h"

namespace qev::subscription {
namespace {

// Larger answers are no subscription: a feed of a few thousand nodes is well under 10 MiB.
constexpr std::size_t kMaxSubscriptionBytes = 32u << 20;

bool isHttpUrl(const std::string& text) {
  const auto url = net::parseUrl(text);
  return url && (url->scheme == "http" || url->scheme == "https");
}

std::int64_t unixNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

ConfigCommands::ConfigCommands(ConfigCommandsDeps deps)
    : deps_(std::move(deps)), records_(deps_.paths.subscriptionRecord, deps_.files) {}

Json ConfigCommands::configPayload() const {
  Json payload = {
      {"httpProxyPort", kHttpProxyPort},
      {"socks5ProxyPort", kSocksProxyPort},
      {"localApiPort", kControllerPort},
      {"localApiUrl", std::string(kControllerBase)},
      {"platform", deps_.platformName},
      {"mode", deps_.settings.readModeSetting()},
      {"autoLaunch", deps_.settings.isAutoLaunchEnabled()},
      {"proxyEnabled", deps_.systemProxy.isSystemProxyDesired()},
      {"subscriptionInfo", subscriptionInfoJson(records_.load())},
  };
  // Every frontend variant finds the selected node under the key it reads.
  const std::string name(base::trimWhitespace(deps_.selection.get().name));
  if (!name.empty()) {
    for (const char* key :
         {"nodeName", "proxyName", "currentProxyName", "selectedProxy", "currentNode"}) {
      payload[key] = name;
    }
  }
  return payload;
}

void ConfigCommands::normalizeConfig(Resolve resolve, Reject reject) {
  if (auto error = deps_.runtimeConfig.normalizeTmpYaml(deps_.settings.readTunSetting())) {
    reject(std::move(*error));
    return;
  }
  resolve(true);
}

void ConfigCommands::updateConfig(const Json& args, Resolve resolve, Reject reject) {
  const Json* arg = base::firstArg(args);
  if (arg != nullptr && arg->is_object()) {
    deps_.runtimeSettings.updateRuntimeConfig(*arg, std::move(resolve), std::move(reject));
    return;
  }
  if (forwardMode(args, resolve, reject)) return;
  if (arg == nullptr || !arg->is_string()) {
    reject(BridgeError::native(1, "missing subscribe URL"));
    return;
  }
  const std::string url = rewriteSubscribeUrl(arg->get<std::string>(), deps_.fallbackApiBase());
  if (!net::parseUrl(url)) {
    reject(BridgeError::native(1, "missing subscribe URL"));
    return;
  }
  download(url, std::move(resolve), std::move(reject));
}

bool ConfigCommands::forwardMode(const Json& args, const Resolve& resolve, const Reject& reject) {
  auto mode = config::runtimeModeFromArgs(args);
  if (mode) deps_.runtimeSettings.updateRuntimeConfig(Json{{"mode", *mode}}, resolve, reject);
  return mode.has_value();
}

void ConfigCommands::fetch(const std::string& url, std::function<void(Result<Fetched>)> done) {
  net::HttpRequest request;
  request.url = url;
  request.timeout = std::chrono::seconds(60);
  request.headers = {{"User-Agent", "clash.meta"}};
  request.maxBodyBytes = kMaxSubscriptionBytes;
  deps_.session.send(
      std::move(request), [this, url, done = std::move(done)](Result<net::HttpResponse> reply) {
        if (!reply) {
          if (net::isBodyTooLarge(reply.error())) {
            done(invalid("larger than " + net::describeMebibytes(kMaxSubscriptionBytes)));
          } else {
            done(reply.error());
          }
          return;
        }
        const auto& response = reply.value();
        if (response.status < 200 || response.status > 299) {
          done(BridgeError::native(static_cast<int>(response.status),
                                   "subscribe HTTP " + std::to_string(response.status)));
          return;
        }
        // Nothing stored, applied or restarted unless the core could run the answer.
        const std::string_view body = config::withoutByteOrderMark(response.body);
        if (const auto reason = config::unusableSubscriptionReason(body)) {
          done(invalid(*reason));
          return;
        }
        done(Fetched{std::string(body), recordOfDownload(url, response.headers, unixNow())});
      });
}

std::optional<BridgeError> ConfigCommands::store(const Fetched& fetched) {
  if (auto ec = deps_.files.writeProtectedData(fetched.body, deps_.paths.protectedRawConfig)) {
    return BridgeError::system(ec.message() + ": " + deps_.paths.protectedRawConfig.string());
  }
  if (const auto ec = records_.save(fetched.record)) {
    deps_.log.message("native.subscribe.record.error: " + ec.message());
  }
  return deps_.runtimeConfig.normalizeTmpYaml(deps_.settings.readTunSetting());
}

void ConfigCommands::download(const std::string& url, Resolve resolve, Reject reject) {
  fetch(url, [this, resolve, reject](Result<Fetched> fetched) {
    if (!fetched) {
      reject(fetched.error());
      return;
    }
    if (auto error = store(fetched.value())) {
      reject(std::move(*error));
      return;
    }
    putConfig(
        Json::array(),
        [this, resolve](Json value) {
          deps_.proxySelection.reapplyLastSelectedProxyIfNeeded(
              [resolve, value = std::move(value)] { resolve(value); });
        },
        reject);
  });
}

void ConfigCommands::refresh(std::function<void(BoolCompletion)> applyToRunningCore,
                             RefreshCompletion done) {
  const auto stored = records_.load();
  if (!stored) {
    done(Refresh::kNoLink);
    return;
  }
  fetch(stored->url, [this, applyToRunningCore = std::move(applyToRunningCore),
                      done = std::move(done)](Result<Fetched> fetched) {
    if (!fetched) {
      done(fetched.error());
      return;
    }
    const auto previous = deps_.files.readProtectedData(deps_.paths.protectedRawConfig);
    if (previous && *previous == fetched.value().body) {
      // Only the account's numbers moved: nothing to apply.
      (void)records_.save(fetched.value().record);
      done(Refresh::kUnchanged);
      return;
    }
    if (auto error = store(fetched.value())) {
      done(std::move(*error));
      return;
    }
    applyToRunningCore([done](bool) { done(Refresh::kUpdated); });
  });
}

BridgeError ConfigCommands::invalid(std::string_view reason) const {
  deps_.log.message("native.subscribe.invalid: " + std::string(reason));
  return config::invalidSubscriptionError();
}

void ConfigCommands::writeConfig(const Json& args, Resolve resolve, Reject reject) {
  const Json* arg = base::firstArg(args);
  if (arg != nullptr && arg->is_string()) {
    const std::string rewritten =
        rewriteSubscribeUrl(arg->get<std::string>(), deps_.fallbackApiBase());
    if (isHttpUrl(rewritten)) {
      updateConfig(Json::array({rewritten}), std::move(resolve), std::move(reject));
      return;
    }
  }
  if (forwardMode(args, resolve, reject)) return;
  const bool namesProxy = (arg != nullptr && arg->is_string() &&
                           !base::trimWhitespace(arg->get<std::string>()).empty()) ||
                          (arg != nullptr && arg->is_object() &&
                           !base::trimWhitespace(proxies::parseSetProxyArgs(args).name).empty());
  if (namesProxy) {
    deps_.proxySelection.setProxy(args, std::move(resolve), std::move(reject));
    return;
  }
  putConfig(args, std::move(resolve), std::move(reject));
}

void ConfigCommands::putConfig(const Json& args, Resolve resolve, Reject reject) {
  const Json* arg = base::firstArg(args);
  if (arg != nullptr && arg->is_object() && !arg->empty()) {
    deps_.runtimeSettings.updateRuntimeConfig(*arg, std::move(resolve), std::move(reject));
    return;
  }
  if (forwardMode(args, resolve, reject)) return;
  // May wait for the core to start: never on the calling (main) thread.
  deps_.executors.post([this, resolve = std::move(resolve), reject = std::move(reject)] {
    applyStoredConfig(resolve, reject);
  });
}

void ConfigCommands::applyStoredConfig(Resolve resolve, Reject reject) {
  deps_.ensureGeoDataFiles();
  if (deps_.runtimeConfig.hasRawSubscriptionConfig()) {
    if (auto error = deps_.runtimeConfig.normalizeTmpYaml(deps_.settings.readTunSetting())) {
      reject(std::move(*error));
      return;
    }
  }
  if (!deps_.runtimeConfig.hasRunnableConfig()) {
    resolve(true);  // nothing to run, so nothing to fail; the core is not started
    return;
  }
  deps_.reloadOrRestartCore([resolve, reject](bool ready) {
    if (ready) {
      resolve(true);
    } else {
      reject(BridgeError::native(2, "mihomo start timeout"));
    }
  });
}

}  // namespace qev::subscription
