#include "app/gtk/gtk_shell.h"

#include <glib-unix.h>
#include <gtk/gtk.h>

#include <csignal>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "app/asset_scheme.h"
#include "app/gtk/glib_main_queue.h"
#include "app/gtk/tray_item.h"
#include "app/gtk/web_view_host.h"
#include "app/page_scripts.h"
#include "bridge/native_bridge.h"
#include "guard/crash_guard.h"
#include "qev/deployment.h"

namespace qev::app {
namespace {

constexpr const char* kApplicationId = deployment::kApplicationId;
constexpr int kWindowWidth = 420;
constexpr int kWindowHeight = 560;

// The application object and everything it builds at launch, torn down in reverse order
// after the main loop has ended.
class DesktopShell {
 public:
  explicit DesktopShell(storage::Environment environment)
      : environment_(std::move(environment)),
        application_(gtk_application_new(kApplicationId, G_APPLICATION_DEFAULT_FLAGS)) {
    // Lets the session manager end the application like the tray's "退出" does.
    g_object_set(application_, "register-session", TRUE, nullptr);
    g_signal_connect(application_, "activate", G_CALLBACK(onActivate), this);
    g_signal_connect(application_, "query-end", G_CALLBACK(onQueryEnd), this);

    const GActionEntry actions[] = {
        {"show", onShowAction, nullptr, nullptr, nullptr, {}},
        {"quit", onQuitAction, nullptr, nullptr, nullptr, {}},
    };
    g_action_map_add_action_entries(G_ACTION_MAP(application_), actions, G_N_ELEMENTS(actions),
                                    this);
    const char* quitKeys[] = {"<Control>q", nullptr};
    gtk_application_set_accels_for_action(application_, "app.quit", quitKeys);

    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
      signalSources_.push_back(g_unix_signal_add(signal, onQuitSignal, this));
    }
  }

  ~DesktopShell() {
    tearDown();
    g_object_unref(application_);
  }

  DesktopShell(const DesktopShell&) = delete;
  DesktopShell& operator=(const DesktopShell&) = delete;

  int run(char* program) {
    // The desktop shell takes no arguments of its own; GApplication would read others as
    // files to open.
    char* args[] = {program, nullptr};
    const int status = g_application_run(G_APPLICATION(application_), 1, args);
    tearDown();
    return status;
  }

 private:
  static void onActivate(GtkApplication*, gpointer self) {
    auto* shell = static_cast<DesktopShell*>(self);
    if (shell->bridge_) {
      shell->showWindow();  // started again: bring the running window back
    } else {
      shell->launch();
    }
  }

  static void onShowAction(GSimpleAction*, GVariant*, gpointer self) {
    static_cast<DesktopShell*>(self)->showWindow();
  }

  static void onQuitAction(GSimpleAction*, GVariant*, gpointer self) {
    static_cast<DesktopShell*>(self)->quit("menu");
  }

  static gboolean onQuitSignal(gpointer self) {
    static_cast<DesktopShell*>(self)->quit("signal");
    return G_SOURCE_CONTINUE;
  }

  static void onQueryEnd(GtkApplication*, gpointer self) {
    auto* shell = static_cast<DesktopShell*>(self);
    if (shell->bridge_) shell->bridge_->log().message("native.app.sessionEnding");
  }

  static void onMapped(GtkWidget*, gpointer self) {
    if (auto* shell = static_cast<DesktopShell*>(self); shell->bridge_) {
      shell->bridge_->setPageVisible(true);
    }
  }
  static void onUnmapped(GtkWidget*, gpointer self) {
    if (auto* shell = static_cast<DesktopShell*>(self); shell->bridge_) {
      shell->bridge_->setPageVisible(false);
    }
  }

  static gboolean onDeleteEvent(GtkWidget* window, GdkEvent*, gpointer) {
    gtk_widget_hide(window);  // closing only hides; the tray brings it back
    return TRUE;
  }

  void launch() {
    auto profile = storage::Profile::forThisPlatform(environment_);
    const auto resources = profile.paths.resources;
    const auto dist = profile.paths.dist;

    // Runs the whole native start-up before the first page message can arrive.
    bridge_ = std::make_unique<bridge::NativeBridge>(
        std::move(profile),
        bridge::ShellSeams{mainQueue_, [this](const std::string& url) { openUrl(url); }});
    guard_ = guard::CrashGuard::engage(bridge_->profile(), environment_.executable, bridge_->log());

    auto scripts = loadPageScripts(resources, bridge_->log());
    auto scheme = std::make_shared<const AssetScheme>(dist, std::move(scripts.ossConfig));
    const WebViewStorage storage{
        std::filesystem::path(g_get_user_data_dir()) / kApplicationId / "webkit",
        std::filesystem::path(g_get_user_cache_dir()) / kApplicationId / "webkit"};
    webView_ = std::make_unique<WebViewHost>(
        *bridge_, std::move(scheme), scripts.runtime, storage,
        WebViewHooks{[this] { showWindow(); }, [this] { return GTK_WINDOW(window_); },
                     [this](const std::string& url) { openUrl(url); }});
    answers_ = std::make_shared<WebViewAnswerSink>(webView_->view());
    bridge_->setAnswerSink(answers_);

    window_ = gtk_application_window_new(application_);
    g_object_ref(window_);
    const std::string title(deployment::kDisplayName);
    gtk_window_set_title(GTK_WINDOW(window_), title.c_str());
    gtk_widget_set_size_request(webView_->widget(), kWindowWidth, kWindowHeight);
    gtk_window_set_resizable(GTK_WINDOW(window_), FALSE);
    gtk_window_set_position(GTK_WINDOW(window_), GTK_WIN_POS_CENTER);
    g_signal_connect(window_, "delete-event", G_CALLBACK(onDeleteEvent), nullptr);
    // Live numbers go to the page only while someone can see them.
    g_signal_connect(window_, "map", G_CALLBACK(onMapped), this);
    g_signal_connect(window_, "unmap", G_CALLBACK(onUnmapped), this);
    gtk_container_add(GTK_CONTAINER(window_), webView_->widget());
    gtk_widget_show(webView_->widget());

    trayMenu_ = std::make_unique<TrayMenu>(
        *bridge_, TrayMenu::WindowActions{[this] {
                                            g_action_group_activate_action(
                                                G_ACTION_GROUP(application_), "show", nullptr);
                                          },
                                          [this] {
                                            g_action_group_activate_action(
                                                G_ACTION_GROUP(application_), "quit", nullptr);
                                          }});
    tray_ = std::make_unique<TrayItem>(*trayMenu_, kApplicationId, resources / "icons");
    webView_->load(kStartPageUrl);
    bridge_->start();
    showWindow();
  }

  void showWindow() {
    if (!window_) return;
    gtk_widget_show(window_);
    gtk_window_present(GTK_WINDOW(window_));
  }

  void quit(const char* reason) {
    if (bridge_) bridge_->log().message(std::string("native.app.quit: ") + reason);
    g_application_quit(G_APPLICATION(application_));
  }

  void openUrl(const std::string& url) {
    GError* error = nullptr;
    if (!gtk_show_uri_on_window(window_ ? GTK_WINDOW(window_) : nullptr, url.c_str(),
                                GDK_CURRENT_TIME, &error)) {
      if (bridge_) {
        bridge_->log().message(std::string("native.openExternal.error: ") +
                               (error ? error->message : "no handler"));
      }
      g_clear_error(&error);
    }
  }

  // Shutdown first, while the page and the queue still work, then the user interface, then
  // the bridge itself. Safe to call more than once.
  void tearDown() {
    for (const guint source : signalSources_) g_source_remove(source);
    signalSources_.clear();
    if (bridge_) bridge_->shutdown();
    guard_.reset();  // a clean quit: the shutdown above has done the guard's work
    answers_.reset();
    webView_.reset();
    tray_.reset();
    trayMenu_.reset();
    if (window_) {
      gtk_widget_destroy(window_);
      g_object_unref(window_);
      window_ = nullptr;
    }
    mainQueue_->close();
    // Free the tasks still waiting on the loop; closed, they no longer run.
    while (g_main_context_pending(nullptr)) g_main_context_iteration(nullptr, FALSE);
    bridge_.reset();
  }

  storage::Environment environment_;
  GtkApplication* application_;
  std::shared_ptr<GlibMainQueue> mainQueue_ = std::make_shared<GlibMainQueue>(nullptr);
  std::vector<guint> signalSources_;
  std::unique_ptr<bridge::NativeBridge> bridge_;
  std::unique_ptr<guard::CrashGuard> guard_;
  std::unique_ptr<WebViewHost> webView_;
  std::shared_ptr<WebViewAnswerSink> answers_;
  GtkWidget* window_ = nullptr;
  std::unique_ptr<TrayMenu> trayMenu_;
  std::unique_ptr<TrayItem> tray_;
};

}  // namespace

int runGtk(int argc, char** argv, const storage::Environment& environment) {
  DesktopShell shell(environment);
  return shell.run(argc > 0 ? argv[0] : const_cast<char*>("qev"));
}

}  // namespace qev::app
