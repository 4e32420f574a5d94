#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/json.h"

namespace qev::bridge {
class NativeBridge;
}

namespace qev::app {

// One line of the tray (status item) menu, as every shell draws it.
struct TrayEntry {
  enum class Kind { kAction, kChoice, kInfo, kSeparator };
  Kind kind = Kind::kAction;
  std::string id;  // what `TrayMenu::activate` takes: "connect", "mode:<mode>", "show", "quit"
  std::string text;
  bool checked = false;  // choices only
  bool enabled = true;

  bool operator==(const TrayEntry&) const = default;
};

// What the menu shows, as the bridge's events report it.
struct TrayState {
  bool connected = false;
  std::string mode = "rule";
  std::string node;                // "" before the user chose one
  std::string language = "zh-CN";  // the page's; any other than English reads Chinese
  std::optional<std::pair<std::uint64_t, std::uint64_t>> rate;  // up, down in bytes per second

  bool operator==(const TrayState&) const = default;
};

// Connect or disconnect, the three routing modes, the current node, then "显示窗口" and "退出"
// (translated only in English).
std::vector<TrayEntry> trayEntries(const TrayState& state);

// The text beside the tray icon: the speed while connected, else the product's name.
std::string trayLabel(const TrayState& state);

// The tray menu of the running application: follows the bridge's events (on the main queue) and
// sends what the user picks through the bridge's own commands, so the page hears of it too.
class TrayMenu {
 public:
  struct WindowActions {
    std::function<void()> show;
    std::function<void()> quit;
  };

  TrayMenu(bridge::NativeBridge& bridge, WindowActions actions);

  const TrayState& state() const { return state_; }
  std::vector<TrayEntry> entries() const { return trayEntries(state_); }
  std::string label() const { return trayLabel(state_); }

  // Called on the main queue after every change of what the menu shows.
  void onChange(std::function<void()> observer) { observer_ = std::move(observer); }
  // Runs the entry's action; unknown ids do nothing.
  void activate(const std::string& id);

 private:
  void follow(const std::string& event, const Json& payload);

  bridge::NativeBridge& bridge_;
  WindowActions actions_;
  TrayState state_;
  std::function<void()> observer_;
  // The bridge outlives the menu: its observer checks that the menu still exists.
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace qev::app
