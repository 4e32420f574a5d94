#pragma once

#include <functional>
#include <optional>
#include <string>

#include "base/completions.h"
#include "base/logger.h"
#include "controller/controller_client.h"
#include "storage/selection_memory.h"
#include "storage/settings_store.h"
#include "sysproxy/system_proxy_requests.h"

namespace qev::proxies {

// Makes sure a core answers; the completion tells whether its controller does.
using EnsureCore = std::function<void(BoolCompletion)>;

// Selecting a node in the core, remembering the choice, and applying it again after every new
// configuration.
class ProxySelection {
 public:
  ProxySelection(controller::ControllerClient& controller, storage::SelectionMemory& memory,
                 const storage::SettingsStore& settings, sysproxy::SystemProxyRequests& systemProxy,
                 EnsureCore ensureCore, const base::Logger& log);

  // The page command: true after a switch, false without a name or without a controller.
  void setProxy(const Json& args, Resolve resolve, Reject reject);
  // Selects `name` in `group`, falling back once to another selector group that holds it.
  void selectProxy(std::string group, std::string name,
                   std::function<void(std::optional<BridgeError>)> completion);
  // "SELECT" when it holds the name, else the first selector group that does.
  void findSelectorGroup(const std::string& name,
                         std::function<void(std::optional<std::string>)> completion);
  void saveLastSelectedProxy(const std::string& group, const std::string& name);
  // Re-selects the remembered node; the completion always runs once, whatever happened.
  void reapplyLastSelectedProxyIfNeeded(DoneCompletion completion);

 private:
  void finishSelection(const std::string& group, const std::string& name,
                       std::function<void(std::optional<BridgeError>)> completion);

  controller::ControllerClient& controller_;
  storage::SelectionMemory& memory_;
  const storage::SettingsStore& settings_;
  sysproxy::SystemProxyRequests& systemProxy_;
  EnsureCore ensureCore_;
  const base::Logger& log_;
};

}  // namespace qev::proxies
