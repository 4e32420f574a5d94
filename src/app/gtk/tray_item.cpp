#include "app/gtk/tray_item.h"

#include <libayatana-appindicator/app-indicator.h>

#include <system_error>

#include "qev/deployment.h"

namespace qev::app {
namespace {

constexpr const char* kIconFile = "qev-tray.svg";
constexpr const char* kFallbackIconName = "network-vpn";

void activateAction(GtkMenuItem* item, gpointer application) {
  const auto* action = static_cast<const char*>(g_object_get_data(G_OBJECT(item), "qev-action"));
  g_action_group_activate_action(G_ACTION_GROUP(application), action, nullptr);
}

GtkWidget* menuEntry(GApplication* application, const char* title, const char* action) {
  GtkWidget* item = gtk_menu_item_new_with_label(title);
  g_object_set_data(G_OBJECT(item), "qev-action", const_cast<char*>(action));
  g_signal_connect(item, "activate", G_CALLBACK(activateAction), application);
  return item;
}

}  // namespace

TrayItem::TrayItem(GApplication* application, const std::string& id,
                   const std::filesystem::path& iconDir) {
  accelerators_ = gtk_accel_group_new();
  menu_ = gtk_menu_new();
  g_object_ref_sink(menu_);
  gtk_menu_set_accel_group(GTK_MENU(menu_), accelerators_);

  GtkWidget* show = menuEntry(application, "显示窗口", "show");
  GtkWidget* quit = menuEntry(application, "退出", "quit");
  // Shown beside the entry; the key itself is the application accelerator of "app.quit".
  gtk_widget_add_accelerator(quit, "activate", accelerators_, GDK_KEY_q, GDK_CONTROL_MASK,
                             GTK_ACCEL_VISIBLE);
  gtk_menu_shell_append(GTK_MENU_SHELL(menu_), show);
  gtk_menu_shell_append(GTK_MENU_SHELL(menu_), gtk_separator_menu_item_new());
  gtk_menu_shell_append(GTK_MENU_SHELL(menu_), quit);
  gtk_widget_show_all(menu_);

  // The icon goes by its absolute path, not by name in an extra theme folder: the fallback
  // for desktops without a tray host reads past the end of the theme's search path whenever
  // a theme folder is set.
  const auto icon = iconDir / kIconFile;
  std::error_code missing;
  indicator_ = app_indicator_new(
      id.c_str(), std::filesystem::exists(icon, missing) ? icon.c_str() : kFallbackIconName,
      APP_INDICATOR_CATEGORY_APPLICATION_STATUS);
  const std::string name(deployment::kDisplayName);
  app_indicator_set_title(indicator_, name.c_str());
  app_indicator_set_label(indicator_, name.c_str(), name.c_str());
  app_indicator_set_menu(indicator_, GTK_MENU(menu_));
  // A middle click on the item shows the window, the nearest thing to clicking its button.
  app_indicator_set_secondary_activate_target(indicator_, show);
  app_indicator_set_status(indicator_, APP_INDICATOR_STATUS_ACTIVE);
}

TrayItem::~TrayItem() {
  app_indicator_set_status(indicator_, APP_INDICATOR_STATUS_PASSIVE);
  g_object_unref(indicator_);
  gtk_widget_destroy(menu_);
  g_object_unref(menu_);
  g_object_unref(accelerators_);
}

}  // namespace qev::app
