#include "proxies/runtime_settings.h"

#include "config/routing_mode.h"
#include "controller/controller_reply.h"

namespace qev::proxies {

RuntimeSettings::RuntimeSettings(controller::ControllerClient& controller,
                                 const storage::SettingsStore& settings, EnsureCore ensureCore,
                                 const base::Logger& log)
    : controller_(controller), settings_(settings), ensureCore_(std::move(ensureCore)), log_(log) {}

void RuntimeSettings::updateRuntimeConfig(Json config, Resolve resolve, Reject reject) {
  if (const auto mode = config.find("mode"); mode != config.end() && mode->is_string()) {
    if (auto normalized = config::normalizedMihomoMode(mode->get<std::string>())) {
      if (auto ec = settings_.update([&](Json& s) { s["mode"] = *normalized; })) {
        log_.message("native.mode.save.error: " + ec.message());
      }
      log_.message("native.mode.set: " + *normalized);
      *mode = *normalized;  // the core knows only the canonical words
    }
  }
  ensureCore_([this, config = std::move(config), resolve = std::move(resolve),
               reject = std::move(reject)](bool ready) {
    if (!ready) {
      reject(BridgeError::native(31, "mihomo not running"));
      return;
    }
    controller_.httpJSON(
        "PATCH", controller_.base() + "/configs", config,
        [this, resolve, reject](Result<Json> reply) {
          if (auto error = controller::controllerChangeError(reply)) {
            log_.message("native.config.update.error: " + error->description);
            reject(std::move(*error));
            return;
          }
          controller_.closeConnections([resolve, value = reply.value()] { resolve(value); });
        });
  });
}

}  // namespace qev::proxies
