#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/completions.h"
#include "base/logger.h"
#include "config/config_outline.h"
#include "controller/controller_client.h"
#include "storage/selection_memory.h"
#include "storage/settings_store.h"
#include "sysproxy/system_proxy_requests.h"

namespace qev::proxies {

// Makes sure a core answers; the completion tells whether its controller does.
using EnsureCore = std::function<void(BoolCompletion)>;
// The outline of the configuration the core runs.
using ReadOutline = std::function<config::ConfigOutline()>;

// Selecting a node in the core, remembering the choice, and applying it again after every new
// configuration.
class ProxySelection {
 public:
  ProxySelection(controller::ControllerClient& controller, storage::SelectionMemory& memory,
                 const storage::SettingsStore& settings, sysproxy::SystemProxyRequests& systemProxy,
                 EnsureCore ensureCore, ReadOutline outline, const base::Logger& log);

  // The page command: true after a switch, false without a name or without a controller.
  void setProxy(const Json& args, Resolve resolve, Reject reject);
  // Selects `name` in `group`, falling back once to another selector group that holds it. The
  // group "SELECT" (or none) is the main group: the node is picked there, every selector from
  // the catch-all target down to it is pointed along the way, and GLOBAL gets the node too, so
  // the pick carries the traffic in rule and in global mode.
  void selectProxy(std::string group, std::string name,
                   std::function<void(std::optional<BridgeError>)> completion);
  // "SELECT" when it holds the name, else the first selector group that does.
  void findSelectorGroup(const std::string& name,
                         std::function<void(std::optional<std::string>)> completion);
  void saveLastSelectedProxy(const std::string& group, const std::string& name);
  // Re-selects the remembered node; the completion always runs once, whatever happened.
  void reapplyLastSelectedProxyIfNeeded(DoneCompletion completion);

 private:
  using SelectionDone = std::function<void(std::optional<BridgeError>, std::string group)>;
  using Completion = std::function<void(std::optional<BridgeError>)>;
  // Selects without the follow-up; the completion names the group that took the node.
  void putSelection(std::string group, std::string name, SelectionDone done);
  void selectInMainGroup(const std::string& name, Completion completion);
  // PUTs each (group, member) in turn; failures are logged and the chain goes on.
  void putEach(std::vector<std::pair<std::string, std::string>> steps, std::size_t next,
               DoneCompletion done);
  void finishSelection(const std::string& group, const std::string& name, Completion completion);

  controller::ControllerClient& controller_;
  storage::SelectionMemory& memory_;
  const storage::SettingsStore& settings_;
  sysproxy::SystemProxyRequests& systemProxy_;
  EnsureCore ensureCore_;
  ReadOutline outline_;
  const base::Logger& log_;
};

}  // namespace qev::proxies
