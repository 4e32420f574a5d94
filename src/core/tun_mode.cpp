#include "core/tun_mode.h"

#include "base/fs.h"
#include "base/strings.h"

namespace qev::core {

TunRollback::TunRollback(const storage::Paths& paths, const storage::SettingsStore& settings,
                         const RuntimeConfig& runtimeConfig, const base::Logger& log)
    : paths_(paths), settings_(settings), runtimeConfig_(runtimeConfig), log_(log) {}

bool TunRollback::tunAdminAuthorizationFailed() const {
  return base::itemExists(paths_.appSupport / ".qevjs-tun-cancel") &&
         base::itemExists(paths_.appSupport / ".qevjs-tun-admin.ok");
}

void TunRollback::rollbackTunAfterAdminFailure() const {
  if (auto ec = settings_.update([](Json& s) { s["tun"] = false; })) {
    log_.message("native.tun.admin.rollback.error: " + ec.message());
  }
  if (auto error = runtimeConfig_.normalizeTmpYaml(false)) {
    log_.message("native.tun.admin.rollback.error: " + error->description);
  }
}

TunSwitch::TunSwitch(const storage::SettingsStore& settings, const RuntimeConfig& runtimeConfig,
                     const TunRollback& rollback, TunSwitchHooks hooks, const base::Logger& log)
    : settings_(settings),
      runtimeConfig_(runtimeConfig),
      rollback_(rollback),
      hooks_(std::move(hooks)),
      log_(log) {}

void TunSwitch::setTun(bool enabled, Resolve resolve, Reject reject) {
  if (auto ec = settings_.update([enabled](Json& s) { s["tun"] = enabled; })) {
    reject(BridgeError::system(ec.message()));
    return;
  }
  // A failed rebuild is not fatal: the restart then runs the previous configuration.
  if (runtimeConfig_.hasRawSubscriptionConfig()) (void)runtimeConfig_.normalizeTmpYaml(enabled);
  log_.message(std::string("native.tun.set: ") + base::boolText(enabled) + " restart");

  hooks_.restartCore("tunSet", [this, enabled, resolve, reject](bool ready) {
    if (!ready) {
      reject(BridgeError::native(32, "mihomo restart timeout after TUN change"));
      return;
    }
    if (enabled && rollback_.tunAdminAuthorizationFailed()) {
      log_.message("native.tun.admin.cancelled");
      rollback_.rollbackTunAfterAdminFailure();
      hooks_.setTunRuntimeEnsured(false);
      hooks_.restartCore("tunCancelFallback",
                         [this, resolve](bool) { resolve(settings_.readSettings()); });
      return;
    }
    hooks_.setTunRuntimeEnsured(enabled);
    hooks_.reapplySelection([this, resolve] { resolve(settings_.readSettings()); });
  });
}

}  // namespace qev::core
