#pragma once

#include <gtk/gtk.h>

#include <filesystem>
#include <string>

typedef struct _AppIndicator AppIndicator;

namespace qev::app {

// The status item in the desktop's tray: the label "QEV", the shipped icon, and the menu
// "显示窗口" / separator / "退出". Its entries activate the application actions "app.show"
// and "app.quit", so the tray, the keyboard and a second start share one code path.
class TrayItem {
 public:
  TrayItem(GApplication* application, const std::string& id, const std::filesystem::path& iconDir);
  ~TrayItem();
  TrayItem(const TrayItem&) = delete;
  TrayItem& operator=(const TrayItem&) = delete;

 private:
  AppIndicator* indicator_ = nullptr;
  GtkWidget* menu_ = nullptr;
  GtkAccelGroup* accelerators_ = nullptr;
};

}  // namespace qev::app
