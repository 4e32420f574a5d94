#include "app/tray_menu.h"

#include <array>
#include <cstdio>

#include "base/json.h"
#include "bridge/native_bridge.h"
#include "qev/deployment.h"

namespace qev::app {
namespace {

struct Texts {
  const char* connect;
  const char* disconnect;
  const char* rule;
  const char* global;
  const char* direct;
  const char* node;
  const char* noNode;
  const char* show;
  const char* quit;
};

constexpr Texts kChinese{"连接",   "断开连接",   "规则模式", "全局模式", "直连模式",
                         "节点：", "未选择节点", "显示窗口", "退出"};
constexpr Texts kEnglish{"Connect", "Disconnect",     "Rule",        "Global", "Direct",
                         "Node: ",  "No node chosen", "Show Window", "Quit"};

const Texts& textsFor(const std::string& language) {
  return language == "en" || language.starts_with("en-") ? kEnglish : kChinese;
}

// "1.2 MB/s": one decimal below ten units, none above.
std::string speed(std::uint64_t bytesPerSecond) {
  constexpr std::array<const char*, 5> units = {"B/s", "KB/s", "MB/s", "GB/s", "TB/s"};
  double value = static_cast<double>(bytesPerSecond);
  std::size_t unit = 0;
  while (value >= 1024 && unit + 1 < units.size()) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit > 0 && value < 10 ? "%.1f %s" : "%.0f %s", value,
                units[unit]);
  return text;
}

std::uint64_t counter(const Json& payload, const char* key) {
  const auto it = payload.find(key);
  return it != payload.end() && it->is_number_unsigned() ? it->get<std::uint64_t>() : 0;
}

}  // namespace

std::vector<TrayEntry> trayEntries(const TrayState& state) {
  using Kind = TrayEntry::Kind;
  const Texts& t = textsFor(state.language);
  const auto choice = [&](const char* mode, const char* label) {
    return TrayEntry{Kind::kChoice, std::string("mode:") + mode, label, state.mode == mode, true};
  };
  return {
      {Kind::kAction, "connect", state.connected ? t.disconnect : t.connect, false, true},
      {Kind::kSeparator, "", "", false, true},
      choice("rule", t.rule),
      choice("global", t.global),
      choice("direct", t.direct),
      {Kind::kSeparator, "", "", false, true},
      {Kind::kInfo, "node", state.node.empty() ? t.noNode : t.node + state.node, false, false},
      {Kind::kSeparator, "", "", false, true},
      {Kind::kAction, "show", t.show, false, true},
      {Kind::kSeparator, "", "", false, true},
      {Kind::kAction, "quit", t.quit, false, true},
  };
}

std::string trayLabel(const TrayState& state) {
  if (!state.connected || !state.rate) return std::string(deployment::kDisplayName);
  return "↑ " + speed(state.rate->first) + " ↓ " + speed(state.rate->second);
}

TrayMenu::TrayMenu(bridge::NativeBridge& bridge, WindowActions actions)
    : bridge_(bridge), actions_(std::move(actions)) {
  state_.node = bridge_.lastChosenNode();
  state_.mode = bridge_.routingMode();
  bridge_.observeEvents(
      [this, alive = std::weak_ptr<int>(alive_)](const std::string& event, const Json& payload) {
        if (alive.lock()) follow(event, payload);
      });
}

void TrayMenu::follow(const std::string& event, const Json& payload) {
  const TrayState before = state_;
  if (event == "proxyState") {
    state_.connected = payload.value("connected", false);
    if (!state_.connected) state_.rate.reset();
  } else if (event == "traffic") {
    state_.rate = std::pair{counter(payload, "up"), counter(payload, "down")};
  } else if (event == "mode") {
    state_.mode = base::stringField(payload, "mode");
  } else if (event == "node") {
    state_.node = base::stringField(payload, "name");
  } else if (event == "language") {
    state_.language = base::stringField(payload, "language");
  }
  if (state_ != before && observer_) observer_();
}

void TrayMenu::activate(const std::string& id) {
  const auto ignore = [](Json) {};
  const auto logFailure = [this](BridgeError error) {
    bridge_.log().message("native.tray.error: " + error.description);
  };
  if (id == "connect") {
    // A refused start is explained on the page, so the window comes forward.
    bridge_.handle(state_.connected ? "stopProxy" : "startProxy", Json::array(), ignore,
                   [this, logFailure](BridgeError error) {
                     logFailure(error);
                     if (actions_.show) actions_.show();
                   });
  } else if (id.starts_with("mode:")) {
    bridge_.handle("updateConfig", Json::array({{{"mode", id.substr(5)}}}), ignore, logFailure);
  } else if (id == "show" && actions_.show) {
    actions_.show();
  } else if (id == "quit" && actions_.quit) {
    actions_.quit();
  }
}

}  // namespace qev::app
