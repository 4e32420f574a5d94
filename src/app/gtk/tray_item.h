#pragma once

#include <gtk/gtk.h>

#include <filesystem>
#include <string>
#include <vector>

#include "app/tray_menu.h"

typedef struct _AppIndicator AppIndicator;

namespace qev::app {

// The status item in the desktop's tray: the shipped icon, the label (the product's name, or
// the speed while connected) and the menu of `TrayMenu`, redrawn whenever its entries change.
class TrayItem {
 public:
  TrayItem(TrayMenu& menu, const std::string& id, const std::filesystem::path& iconDir);
  ~TrayItem();
  TrayItem(const TrayItem&) = delete;
  TrayItem& operator=(const TrayItem&) = delete;

 private:
  void redraw();

  TrayMenu& menu_;
  AppIndicator* indicator_ = nullptr;
  GtkWidget* menuWidget_ = nullptr;
  GtkAccelGroup* accelerators_ = nullptr;
  std::vector<TrayEntry> drawn_;
  std::string label_;
};

}  // namespace qev::app
