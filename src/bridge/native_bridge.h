#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "base/executors.h"
#include "base/json.h"
#include "base/main_queue.h"
#include "bridge/commands.h"
#include "bridge/diagnostic_log.h"
#include "controller/controller_client.h"
#include "controller/live_feed.h"
#include "core/controller_readiness.h"
#include "core/core_watchdog.h"
#include "core/mihomo_supervisor.h"
#include "core/runtime_config.h"
#include "core/tun_mode.h"
#include "net/http_session.h"
#include "proxies/live_commands.h"
#include "proxies/proxy_selection.h"
#include "proxies/proxy_switch.h"
#include "proxies/runtime_settings.h"
#include "relay/external_links.h"
#include "relay/http_relay.h"
#include "storage/auto_launch.h"
#include "storage/geo_data.h"
#include "storage/plaintext_cleanup.h"
#include "storage/profile.h"
#include "storage/protected_files.h"
#include "storage/selection_memory.h"
#include "storage/settings_store.h"
#include "storage/system_log.h"
#include "subscription/auto_update.h"
#include "subscription/config_commands.h"
#include "sysproxy/system_proxy_requests.h"

namespace qev::bridge {

// One answer to the page, with the statement a web view evaluates to deliver it.
struct Answer {
  std::string id;
  bool ok = true;
  Json value;           // the result when ok
  std::string message;  // the error text when not ok
  std::string statement;
};

// News the native side tells the page unasked, with the statement that delivers it.
struct Event {
  std::string name;
  Json payload;
  std::string statement;
};

// The web view, or whatever stands in for it. The bridge holds it weakly: with no sink, answers
// and events are dropped.
class AnswerSink {
 public:
  virtual ~AnswerSink() = default;
  virtual void deliver(const Answer& answer) = 0;  // called on the main queue only
  virtual void push(const Event& event) = 0;       // called on the main queue only
};

// What each shell provides.
struct ShellSeams {
  std::shared_ptr<base::MainQueue> mainQueue;
  // Opens a link with the desktop's default handler; called on the main queue.
  std::function<void(const std::string& url)> openUrl;
};

// The composition root of the native side: owns every part, runs start-up and shutdown,
// receives page messages and dispatches the command table.
class NativeBridge {
 public:
  NativeBridge(storage::Profile profile, ShellSeams seams);
  ~NativeBridge();
  NativeBridge(const NativeBridge&) = delete;
  NativeBridge& operator=(const NativeBridge&) = delete;

  void setAnswerSink(std::weak_ptr<AnswerSink> sink);

  // Entry point of both page channels ("nativeBridge", "nativeLog"); main thread.
  void receive(std::string_view channel, const Json& body);
  // Logs the call and runs the named command; unknown names resolve false.
  void handle(const std::string& name, const Json& args, Resolve resolve, Reject reject);
  // Build the page statement and hand it to the sink; main thread.
  void resolve(const std::string& id, const Json& result);
  void reject(const std::string& id, const std::string& message);

  // Tells the page and the event observers `name` with `payload`; any thread. With `toPage`
  // false only the observers hear it.
  void pushEvent(std::string name, Json payload, bool toPage = true);
  // Hears every event on the main queue: what the native parts of the shell (the tray) follow.
  // Besides the page's events: "mode" {mode}, "node" {name} and "language" {language}.
  using EventObserver = std::function<void(const std::string& name, const Json& payload)>;
  void observeEvents(EventObserver observer) { observers_.push_back(std::move(observer)); }
  // Once the page is loading: clears a system proxy left pointing at a dead port, re-applies it
  // when the user left it on, and starts the live feeds and subscription updates. Returns at once.
  void start();
  // Whether the window shows the page: "traffic" events go out only while it does.
  void setPageVisible(bool visible) { pageVisible_ = visible; }
  // Returns the machine to a clean state; runs once, later calls do nothing.
  void shutdown();

  // Page commands whose answer has not been handed to the main queue yet.
  std::size_t commandsInFlight() const { return inFlight_.load(); }

  const storage::Profile& profile() const { return profile_; }
  // The node the user chose last, "" before any choice.
  std::string lastChosenNode() const { return selection_.get().name; }
  // The saved routing mode.
  std::string routingMode() const { return settings_.readModeSetting(); }
  const DiagnosticLog& log() const { return log_; }
  // Wishes for the system proxy (start/stop, selection, restore at start, shutdown).
  sysproxy::SystemProxyRequests& systemProxy() { return *systemProxy_; }

 private:
  void registerCommands();
  void deliver(Answer answer);
  // Migrates, repairs and loads the on-disk state, in start-up order; never fails outward.
  void prepareStorage();
  // Builds the parts that drive the core, once storage and the system proxy exist.
  void buildCoreParts();
  // Applies a newly stored subscription to a running core; false when none runs.
  void applyToRunningCore(BoolCompletion done);

  storage::Profile profile_;
  ShellSeams seams_;
  base::Executors executors_;
  DiagnosticLog log_;
  net::HttpSession http_;  // shared by the controller client, downloads and the page relay
  controller::ControllerClient controller_;  // every call to the core's controller
  // Local storage.
  storage::SystemLog systemLog_;
  storage::ProtectedFiles protectedFiles_;
  storage::SelectionMemory selection_;  // the last chosen proxy, loaded from the settings
  storage::SettingsStore settings_;
  storage::PlaintextCleanup plaintextCleanup_;
  storage::GeoData geoData_;
  storage::AutoLaunch autoLaunch_;
  // HTTP relay for the page and external links.
  std::string apiBase_;  // the panel API base: QEV_API_BASE when set, else the deployment's
  relay::HttpRelay httpRelay_;
  relay::ExternalLinks externalLinks_;
  bool initialProxyWish_ = false;  // the saved "proxyEnabled", for the system-proxy state
  // System proxy: created once the saved wish is loaded, so it starts from the user's choice.
  std::unique_ptr<sysproxy::SystemProxyRequests> systemProxy_;
  // Core supervision: the runtime configuration, readiness, launcher and TUN mode.
  core::RuntimeConfig runtimeConfig_;
  core::TunRollback tunRollback_;
  core::ControllerReadiness readiness_;
  std::unique_ptr<core::MihomoSupervisor> supervisor_;
  std::unique_ptr<core::CoreWatchdog> watchdog_;  // restarts a core that died while connected
  controller::LiveFeed liveFeed_;                 // the core's traffic and log streams
  // Proxy selection, configuration commands and TUN switching (they need the system proxy).
  std::unique_ptr<proxies::ProxySelection> proxySelection_;
  std::unique_ptr<proxies::RuntimeSettings> runtimeSettings_;
  std::unique_ptr<subscription::ConfigCommands> configCommands_;
  std::unique_ptr<proxies::ProxySwitch> proxySwitch_;
  std::unique_ptr<core::TunSwitch> tunSwitch_;
  std::unique_ptr<proxies::LiveCommands> liveCommands_;
  std::unique_ptr<subscription::AutoUpdater> autoUpdater_;
  std::atomic<bool> pageVisible_{false};
  std::vector<EventObserver> observers_;  // main queue only
  CommandTable commands_;
  std::weak_ptr<AnswerSink> sink_;  // main thread only
  std::atomic<std::size_t> inFlight_{0};
  std::atomic<bool> shutDown_{false};
};

}  // namespace qev::bridge
