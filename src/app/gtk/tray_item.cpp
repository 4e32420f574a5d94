#include "app/gtk/tray_item.h"

#include <libayatana-appindicator/app-indicator.h>

#include <system_error>

#include "qev/deployment.h"

namespace qev::app {
namespace {

constexpr const char* kIconFile = "qev-tray.svg";
constexpr const char* kFallbackIconName = "network-vpn";

void activateEntry(GtkMenuItem* item, gpointer data) {
  auto& menu = *static_cast<TrayMenu*>(data);
  const std::string id =
      *static_cast<const std::string*>(g_object_get_data(G_OBJECT(item), "qev-entry"));
  menu.activate(id);
  if (!GTK_IS_CHECK_MENU_ITEM(item)) return;
  // GTK has toggled the item already; it shows the model's state until the change is reported.
  bool checked = false;
  for (const auto& entry : menu.entries()) {
    if (entry.id == id) checked = entry.checked;
  }
  g_signal_handlers_block_by_func(item, reinterpret_cast<gpointer>(activateEntry), data);
  gtk_check_menu_item_set_active(GTK_CHECK_MENU_ITEM(item), checked);
  g_signal_handlers_unblock_by_func(item, reinterpret_cast<gpointer>(activateEntry), data);
}

GtkWidget* itemFor(const TrayEntry& entry, TrayMenu& menu) {
  using Kind = TrayEntry::Kind;
  if (entry.kind == Kind::kSeparator) return gtk_separator_menu_item_new();
  GtkWidget* item = nullptr;
  if (entry.kind == Kind::kChoice) {
    item = gtk_check_menu_item_new_with_label(entry.text.c_str());
    gtk_check_menu_item_set_draw_as_radio(GTK_CHECK_MENU_ITEM(item), TRUE);
    // Set before the handler exists: setting it activates the item.
    gtk_check_menu_item_set_active(GTK_CHECK_MENU_ITEM(item), entry.checked);
  } else {
    item = gtk_menu_item_new_with_label(entry.text.c_str());
  }
  gtk_widget_set_sensitive(item, entry.enabled);
  g_object_set_data_full(G_OBJECT(item), "qev-entry", new std::string(entry.id),
                         [](gpointer id) { delete static_cast<std::string*>(id); });
  g_signal_connect(item, "activate", G_CALLBACK(activateEntry), &menu);
  return item;
}

}  // namespace

TrayItem::TrayItem(TrayMenu& menu, const std::string& id, const std::filesystem::path& iconDir)
    : menu_(menu) {
  accelerators_ = gtk_accel_group_new();
  menuWidget_ = gtk_menu_new();
  g_object_ref_sink(menuWidget_);
  gtk_menu_set_accel_group(GTK_MENU(menuWidget_), accelerators_);

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
  redraw();
  app_indicator_set_menu(indicator_, GTK_MENU(menuWidget_));
  app_indicator_set_status(indicator_, APP_INDICATOR_STATUS_ACTIVE);
  menu_.onChange([this] { redraw(); });
}

TrayItem::~TrayItem() {
  menu_.onChange(nullptr);
  app_indicator_set_status(indicator_, APP_INDICATOR_STATUS_PASSIVE);
  g_object_unref(indicator_);
  gtk_widget_destroy(menuWidget_);
  g_object_unref(menuWidget_);
  g_object_unref(accelerators_);
}

void TrayItem::redraw() {
  if (const std::string label = menu_.label(); label != label_) {
    label_ = label;
    app_indicator_set_label(indicator_, label_.c_str(), "↑ 000.0 MB/s ↓ 000.0 MB/s");
  }
  auto entries = menu_.entries();
  if (entries == drawn_) return;
  drawn_ = std::move(entries);
  gtk_container_foreach(
      GTK_CONTAINER(menuWidget_), [](GtkWidget* child, gpointer) { gtk_widget_destroy(child); },
      nullptr);
  for (const auto& entry : drawn_) {
    GtkWidget* item = itemFor(entry, menu_);
    if (entry.id == "quit") {
      // Shown beside the entry; the key itself is the application accelerator of "app.quit".
      gtk_widget_add_accelerator(item, "activate", accelerators_, GDK_KEY_q, GDK_CONTROL_MASK,
                                 GTK_ACCEL_VISIBLE);
    }
    if (entry.id == "show") {
      // A middle click on the item shows the window, the nearest thing to clicking its button.
      app_indicator_set_secondary_activate_target(indicator_, item);
    }
    gtk_menu_shell_append(GTK_MENU_SHELL(menuWidget_), item);
  }
  gtk_widget_show_all(menuWidget_);
}

}  // namespace qev::app
