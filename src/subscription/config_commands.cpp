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

const Json* first(const Json& args) {
  return (args.is_array() && !args.empty()) ? &args.front() : nullptr;
}

// Larger answers are no subscription: a feed of a few thousand nodes is well under 10 MiB.
constexpr std::size_t kMaxSubscriptionBytes = 32u << 20;

bool isHttpUrl(const std::string& text) {
  const auto url = net::parseUrl(text);
  return url && (url->scheme == "http" || url->scheme == "https");
}

}  // namespace

ConfigCommands::ConfigCommands(ConfigCommandsDeps deps) : deps_(std::move(deps)) {}

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
  const Json* arg = first(args);
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

void ConfigCommands::download(const std::string& url, Resolve resolve, Reject reject) {
  net::HttpRequest request;
  request.url = url;
  request.timeout = std::chrono::seconds(60);
  request.headers = {{"User-Agent", "clash.meta"}};
  request.maxBodyBytes = kMaxSubscriptionBytes;
  deps_.session.send(std::move(request), [this, resolve, reject](Result<net::HttpResponse> reply) {
    if (!reply) {
      if (net::isBodyTooLarge(reply.error())) {
        rejectInvalid("larger than " + net::describeMebibytes(kMaxSubscriptionBytes), reject);
      } else {
        reject(reply.error());
      }
      return;
    }
    const auto& response = reply.value();
    if (response.status < 200 || response.status > 299) {
      reject(BridgeError::native(static_cast<int>(response.status),
                                 "subscribe HTTP " + std::to_string(response.status)));
      return;
    }
    // Nothing stored, applied or restarted unless the core could run the answer.
    const std::string_view body = config::withoutByteOrderMark(response.body);
    if (const auto reason = config::unusableSubscriptionReason(body)) {
      rejectInvalid(*reason, reject);
      return;
    }
    if (auto ec = deps_.files.writeProtectedData(body, deps_.paths.protectedRawConfig)) {
      reject(BridgeError::system(ec.message() + ": " + deps_.paths.protectedRawConfig.string()));
      return;
    }
    if (auto error = deps_.runtimeConfig.normalizeTmpYaml(deps_.settings.readTunSetting())) {
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

void ConfigCommands::rejectInvalid(std::string_view reason, const Reject& reject) const {
  deps_.log.message("native.subscribe.invalid: " + std::string(reason));
  reject(config::invalidSubscriptionError());
}

void ConfigCommands::writeConfig(const Json& args, Resolve resolve, Reject reject) {
  const Json* arg = first(args);
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
  const Json* arg = first(args);
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
