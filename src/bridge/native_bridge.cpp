#include "bridge/native_bridge.h"

#include <sys/stat.h>

#include <cstdlib>
#include <optional>
#include <system_error>

#include "base/constants.h"
#include "base/redaction.h"
#include "bridge/literals.h"
#include "config/routing_mode.h"
#include "net/port_probe.h"
#include "qev/deployment.h"
#include "relay/api_base.h"
#include "storage/data_folder.h"

namespace qev::bridge {
namespace {

constexpr std::string_view kBridgeChannel = "nativeBridge";
constexpr std::string_view kLogChannel = "nativeLog";
// How long quitting waits for a running system-proxy switch before switching off itself.
constexpr std::chrono::seconds kShutdownSwitchLimit{5};
constexpr std::chrono::milliseconds kPortProbeTimeout{500};

// Tests shorten the hour the subscription updater counts in.
std::chrono::milliseconds autoUpdateHour() {
  const char* value = std::getenv("QEV_AUTO_UPDATE_HOUR_MS");
  const long long ms = value ? std::atoll(value) : 0;
  return ms > 0 ? std::chrono::milliseconds(ms) : std::chrono::hours(1);
}

// The panel base a self-hosted deployment or a test sets; read once, at start-up.
std::optional<std::string> apiBaseOverride() {
  const char* value = std::getenv("QEV_API_BASE");
  return value ? std::optional<std::string>(value) : std::nullopt;
}

// Wraps a command's completions so that only the first answer counts.
struct CompletionGate {
  std::atomic<bool> answered{false};
  bool claim() { return !answered.exchange(true); }
};

}  // namespace

NativeBridge::NativeBridge(storage::Profile profile, ShellSeams seams)
    : profile_(std::move(profile)),
      seams_(std::move(seams)),
      log_(profile_.paths.log),
      http_(executors_),
      controller_(http_, log_),
      protectedFiles_(profile_.paths, profile_.userName),
      settings_(profile_.paths, selection_, log_),
      plaintextCleanup_(profile_.paths, protectedFiles_),
      geoData_(profile_.paths),
      autoLaunch_(profile_.platform, profile_.paths, settings_, log_),
      apiBase_(relay::nativeFallbackAPIBase(apiBaseOverride())),
      httpRelay_(http_, controller_, settings_, log_, apiBase_),
      externalLinks_(log_, seams_.mainQueue, seams_.openUrl),
      runtimeConfig_(profile_.paths, protectedFiles_, settings_, controller_, log_),
      tunRollback_(profile_.paths, settings_, runtimeConfig_, log_),
      readiness_(http_, controller_, executors_),
      liveFeed_(http_, controller_, executors_) {
  prepareStorage();
  systemProxy_ = std::make_unique<sysproxy::SystemProxyRequests>(
      sysproxy::makeSystemProxyBackend(profile_, log_),
      [this](bool enabled) { settings_.persistProxyEnabled(enabled); },
      executors_.makeSerialQueue("qev.native.systemProxy.apply"), log_, initialProxyWish_);
  buildCoreParts();
  registerCommands();
}

void NativeBridge::buildCoreParts() {
  core::CoreHooks hooks{
      [this] { return runtimeConfig_.prepareRuntimeConfigFile(); },
      [this] { return runtimeConfig_.hasRunnableConfig(); },
      [this] { plaintextCleanup_.removeRuntimePlaintextConfigs(); },
      [this] { geoData_.ensureGeoDataFiles(); },
      [this] { return settings_.readTunSetting(); },
      [this] { return tunRollback_.tunAdminAuthorizationFailed(); },
      [this] { tunRollback_.rollbackTunAfterAdminFailure(); },
      [this] { watchdog_->coreExited(); },
      [this] { liveFeed_.coreReady(); },
  };
  supervisor_ = std::make_unique<core::MihomoSupervisor>(profile_, log_, systemLog_, executors_,
                                                         readiness_, controller_, std::move(hooks));
  watchdog_ = std::make_unique<core::CoreWatchdog>(
      core::WatchdogHooks{
          [this] { return systemProxy_->isSystemProxyDesired(); },
          [this](std::string reason, BoolCompletion done) {
            supervisor_->restartMihomoSerialized(reason, std::move(done));
          },
          [this] { proxySelection_->reapplyLastSelectedProxyIfNeeded([] {}); },
          [this] {
            systemProxy_->suspend("coreStopped");
            pushEvent("proxyState", {{"connected", false}, {"reason", "coreStopped"}});
          }},
      log_);
  auto ensureCore = [this](BoolCompletion done) {
    supervisor_->ensureMihomoRunning(std::move(done));
  };
  auto outline = [this] { return runtimeConfig_.outline(); };
  proxySelection_ = std::make_unique<proxies::ProxySelection>(
      controller_, selection_, settings_, *systemProxy_, ensureCore, outline, log_);
  runtimeSettings_ =
      std::make_unique<proxies::RuntimeSettings>(controller_, settings_, ensureCore, log_);
  configCommands_ = std::make_unique<subscription::ConfigCommands>(subscription::ConfigCommandsDeps{
      http_, executors_, profile_.paths, protectedFiles_, runtimeConfig_, settings_, selection_,
      *systemProxy_, *proxySelection_, *runtimeSettings_,
      [this](BoolCompletion done) { supervisor_->reloadOrRestartMihomo(std::move(done)); },
      [this] { geoData_.ensureGeoDataFiles(); }, [this] { return apiBase_; }, profile_.platformName,
      log_});
  proxySwitch_ = std::make_unique<proxies::ProxySwitch>(
      controller_, http_, *proxySelection_, selection_, settings_, *systemProxy_, ensureCore,
      [this](Resolve resolve, Reject reject) {
        configCommands_->putConfig(Json::array(), std::move(resolve), std::move(reject));
      },
      outline, log_, std::string(deployment::kConnectivityCheckUrl));
  liveCommands_ = std::make_unique<proxies::LiveCommands>(
      controller_, liveFeed_, outline, std::string(deployment::kClientVersion),
      std::string(deployment::kConnectivityCheckUrl));
  autoUpdater_ = std::make_unique<subscription::AutoUpdater>(
      executors_, log_,
      subscription::AutoUpdater::Hooks{
          [this] { return configCommands_->record(); },
          [this](subscription::ConfigCommands::RefreshCompletion done) {
            configCommands_->refresh(
                [this](BoolCompletion applied) { applyToRunningCore(std::move(applied)); },
                std::move(done));
          },
          [this] {
            pushEvent("subscription",
                      subscription::subscriptionInfoJson(configCommands_->record()));
          }},
      autoUpdateHour());
  tunSwitch_ = std::make_unique<core::TunSwitch>(
      settings_, runtimeConfig_, tunRollback_,
      core::TunSwitchHooks{[this](std::string reason, BoolCompletion done) {
                             supervisor_->restartMihomoSerialized(reason, std::move(done));
                           },
                           [this](bool ensured) { supervisor_->setTunRuntimeEnsured(ensured); },
                           [this](DoneCompletion done) {
                             proxySelection_->reapplyLastSelectedProxyIfNeeded(std::move(done));
                           }},
      log_);
}

NativeBridge::~NativeBridge() {
  // Stop every source of callbacks before the parts they call into are destroyed.
  http_.stop();
  executors_.stop();
}

void NativeBridge::prepareStorage() {
  storage::migrateAppSupportDirectoryIfNeeded(profile_.paths, systemLog_);
  storage::createDataFolder(profile_.paths);
  plaintextCleanup_.runAtStartup();
  settings_.ensureLocalSettings();

  const Json settings = settings_.readSettings();
  const auto stringOr = [&settings](const char* key, std::string fallback) {
    const auto it = settings.find(key);
    return (it != settings.end() && it->is_string()) ? it->get<std::string>() : fallback;
  };
  selection_.set({stringOr("lastSelectedProxyGroup", std::string(kSelectorGroup)),
                  stringOr("lastSelectedProxyName", "")});
  const auto wish = settings.find("proxyEnabled");
  initialProxyWish_ = wish != settings.end() && wish->is_boolean() && wish->get<bool>();

  geoData_.ensureGeoDataFiles();
}

void NativeBridge::setAnswerSink(std::weak_ptr<AnswerSink> sink) {
  sink_ = std::move(sink);
}

void NativeBridge::registerCommands() {
  // Each part adds its commands here; a name missing from the table resolves false.
  commands_["httpRequest"] = [this](const Json& args, Resolve resolve, Reject reject) {
    httpRelay_.nativeHttpRequest(args, std::move(resolve), std::move(reject));
  };
  commands_["openExternal"] = [this](const Json& args, Resolve resolve, Reject reject) {
    externalLinks_.openExternal(args, std::move(resolve), std::move(reject));
  };
  commands_["getConfig"] = [this](const Json&, Resolve resolve, Reject) {
    resolve(configCommands_->configPayload());
  };
  commands_["updateConfig"] = [this](const Json& args, Resolve resolve, Reject reject) {
    const Json* link = base::firstArg(args);
    if (config::runtimeModeFromArgs(args)) {
      // A mode is saved before the core is asked, so the saved one is reported either way.
      resolve = [this, resolve = std::move(resolve)](Json value) {
        pushEvent("mode", {{"mode", routingMode()}});
        resolve(std::move(value));
      };
      reject = [this, reject = std::move(reject)](BridgeError error) {
        pushEvent("mode", {{"mode", routingMode()}});
        reject(std::move(error));
      };
    } else if (link != nullptr && link->is_string()) {
      // A new download: the account's numbers and its time changed.
      resolve = [this, resolve = std::move(resolve)](Json value) {
        pushEvent("subscription", subscription::subscriptionInfoJson(configCommands_->record()));
        resolve(std::move(value));
      };
    }
    configCommands_->updateConfig(args, std::move(resolve), std::move(reject));
  };
  commands_["writeConfig"] = [this](const Json& args, Resolve resolve, Reject reject) {
    configCommands_->writeConfig(args, std::move(resolve), std::move(reject));
  };
  commands_["putConfig"] = [this](const Json& args, Resolve resolve, Reject reject) {
    configCommands_->putConfig(args, std::move(resolve), std::move(reject));
  };
  commands_["normalizeConfig"] = [this](const Json&, Resolve resolve, Reject reject) {
    configCommands_->normalizeConfig(std::move(resolve), std::move(reject));
  };
  commands_["getServers"] = [this](const Json&, Resolve resolve, Reject) {
    proxySwitch_->getServers(std::move(resolve));
  };
  commands_["setProxy"] = [this](const Json& args, Resolve resolve, Reject reject) {
    proxySelection_->setProxy(
        args,
        [this, resolve = std::move(resolve)](Json value) {
          pushEvent("node", {{"name", lastChosenNode()}});
          resolve(std::move(value));
        },
        std::move(reject));
  };
  // The page's language, for the texts of the native menus.
  commands_["setLanguage"] = [this](const Json& args, Resolve resolve, Reject) {
    const Json* language = base::firstArg(args);
    if (language == nullptr || !language->is_string()) {
      resolve(false);
      return;
    }
    pushEvent("language", {{"language", *language}});
    resolve(true);
  };
  commands_["startProxy"] = [this](const Json&, Resolve resolve, Reject reject) {
    proxySwitch_->startProxy(
        [this, resolve = std::move(resolve)](Json value) {
          pushEvent("proxyState", {{"connected", true}, {"reason", "started"}});
          resolve(std::move(value));
        },
        // A start from the tray has no page waiting for the answer: the page hears why here.
        [this, reject = std::move(reject)](BridgeError error) {
          const bool unavailable = error.description == "NODE_UNAVAILABLE";
          pushEvent("proxyState", {{"connected", false},
                                   {"reason", unavailable ? "unavailable" : "failed"},
                                   {"detail", error.description}});
          reject(std::move(error));
        });
  };
  const Command stop = [this](const Json&, Resolve resolve, Reject) {
    proxySwitch_->stopProxy([this, resolve = std::move(resolve)](Json value) {
      pushEvent("proxyState", {{"connected", false}, {"reason", "stopped"}});
      resolve(std::move(value));
    });
  };
  commands_["closeProxy"] = stop;
  commands_["stopProxy"] = stop;
  commands_["setTun"] = [this](const Json& args, Resolve resolve, Reject reject) {
    tunSwitch_->setTun(boolArg(base::firstArg(args)), std::move(resolve), std::move(reject));
  };
  commands_["getSettings"] = [this](const Json&, Resolve resolve, Reject) {
    resolve(settings_.readSettings());
  };
  commands_["getTraffic"] = [this](const Json&, Resolve resolve, Reject) {
    liveCommands_->getTraffic(resolve);
  };
  commands_["getConnections"] = [this](const Json&, Resolve resolve, Reject) {
    liveCommands_->getConnections(std::move(resolve));
  };
  commands_["closeConnection"] = [this](const Json& args, Resolve resolve, Reject reject) {
    liveCommands_->closeConnection(args, std::move(resolve), std::move(reject));
  };
  commands_["closeAllConnections"] = [this](const Json&, Resolve resolve, Reject) {
    liveCommands_->closeAllConnections(std::move(resolve));
  };
  commands_["getLogs"] = [this](const Json& args, Resolve resolve, Reject) {
    liveCommands_->getLogs(args, resolve);
  };
  commands_["testDelay"] = [this](const Json& args, Resolve resolve, Reject reject) {
    liveCommands_->testDelay(args, std::move(resolve), std::move(reject));
  };
  commands_["getVersion"] = [this](const Json&, Resolve resolve, Reject) {
    liveCommands_->getVersion(std::move(resolve));
  };
  commands_["setAutoLaunch"] = [this](const Json& args, Resolve resolve, Reject reject) {
    auto result = autoLaunch_.setAutoLaunch(boolArg(base::firstArg(args)));
    if (result) {
      resolve(std::move(result).value());
    } else {
      reject(result.error());
    }
  };
}

void NativeBridge::receive(std::string_view channel, const Json& body) {
  if (channel == kLogChannel) {
    log_.append(body);
    return;
  }
  if (channel != kBridgeChannel) return;
  auto message = parseBridgeMessage(body);
  if (!message) return;
  const std::string requestId = message->id;
  auto gate = std::make_shared<CompletionGate>();
  auto queue = seams_.mainQueue;
  ++inFlight_;
  Resolve onResolve = [this, gate, queue, requestId](Json value) {
    if (!gate->claim()) return;
    queue->post([this, requestId, value = std::move(value)] { resolve(requestId, value); });
    --inFlight_;
  };
  Reject onReject = [this, gate, queue, requestId](BridgeError error) {
    if (!gate->claim()) return;
    queue->post(
        [this, requestId, text = std::move(error.description)] { reject(requestId, text); });
    --inFlight_;
  };
  handle(message->name, message->args, std::move(onResolve), std::move(onReject));
}

void NativeBridge::handle(const std::string& name, const Json& args, Resolve resolve,
                          Reject reject) {
  log_.message("native.bridge.call: " + name + " " + base::bridgeArgsPreview(args));
  const auto command = commands_.find(name);
  if (command == commands_.end()) {
    resolve(false);
    return;
  }
  try {
    command->second(args, resolve, reject);
  } catch (const std::exception& e) {
    // A command must answer even when its arguments surprised it.
    reject(BridgeError::native(3, e.what()));
  }
}

void NativeBridge::resolve(const std::string& id, const Json& result) {
  Answer answer{id, true, result, {}, {}};
  answer.statement = "window.__nativeBridgeResolve && window.__nativeBridgeResolve(" +
                     jsonLiteral(id) + ", " + jsonLiteral(result) + ");";
  deliver(std::move(answer));
}

void NativeBridge::reject(const std::string& id, const std::string& message) {
  Answer answer{id, false, nullptr, message, {}};
  answer.statement = "window.__nativeBridgeReject && window.__nativeBridgeReject(" +
                     jsonLiteral(id) + ", " + jsonLiteral(message) + ");";
  deliver(std::move(answer));
}

void NativeBridge::deliver(Answer answer) {
  if (auto sink = sink_.lock()) sink->deliver(answer);
}

void NativeBridge::pushEvent(std::string name, Json payload, bool toPage) {
  Event event{std::move(name), std::move(payload), {}};
  event.statement = "window.__nativeBridgeEvent && window.__nativeBridgeEvent(" +
                    jsonLiteral(event.name) + ", " + jsonLiteral(event.payload) + ");";
  seams_.mainQueue->post([this, toPage, event = std::move(event)] {
    for (const auto& observer : observers_) observer(event.name, event.payload);
    if (!toPage) return;
    if (auto sink = sink_.lock()) sink->push(event);
  });
}

void NativeBridge::start() {
  systemProxy_->repairIfStale([] {
    return net::acceptsConnections(std::string(kProxyHost), kHttpProxyPort, kPortProbeTimeout);
  });
  proxySwitch_->restoreProxyIfNeeded([this](bool connected, std::string reason) {
    pushEvent("proxyState", {{"connected", connected}, {"reason", std::move(reason)}});
  });
  liveFeed_.start([this](const Json& traffic) { pushEvent("traffic", traffic, pageVisible_); });
  autoUpdater_->start();
}

void NativeBridge::applyToRunningCore(BoolCompletion done) {
  // A core nobody started stays stopped; a running one takes up the new subscription.
  readiness_.isControllerReady([this, done = std::move(done)](bool ready) {
    if (!ready) {
      done(false);
      return;
    }
    configCommands_->putConfig(
        Json::array(),
        [this, done](Json) {
          proxySelection_->reapplyLastSelectedProxyIfNeeded([done] { done(true); });
        },
        [done](BridgeError) { done(false); });
  });
}

void NativeBridge::shutdown() {
  if (shutDown_.exchange(true)) return;
  autoUpdater_->stop();
  liveFeed_.stop();
  // Off first, behind any switch already running, so that the desktop ends on "off".
  systemProxy_->shutdown(kShutdownSwitchLimit);
  supervisor_->stopForShutdown();
  supervisor_->killStaleMihomo();
  // No plaintext configuration outlives the run that wrote it.
  plaintextCleanup_.removeRuntimePlaintextConfigs();
  log_.message("native.shutdown.complete");
}

}  // namespace qev::bridge
