#pragma once

#include <webkit2/webkit2.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "app/asset_scheme.h"
#include "bridge/native_bridge.h"

namespace qev::app {

// Answers to the page, evaluated in the web view. Held by the shell; the bridge keeps only a
// weak reference, and a sink whose view is gone drops answers.
class WebViewAnswerSink final : public bridge::AnswerSink {
 public:
  explicit WebViewAnswerSink(WebKitWebView* view);
  ~WebViewAnswerSink() override;
  WebViewAnswerSink(const WebViewAnswerSink&) = delete;
  WebViewAnswerSink& operator=(const WebViewAnswerSink&) = delete;

  void deliver(const bridge::Answer& answer) override;
  void push(const bridge::Event& event) override;

 private:
  void evaluate(const std::string& statement);

  WebKitWebView* view_;  // weak: cleared by GObject when the view is finalised
};

// What the web view needs from the window around it.
struct WebViewHooks {
  std::function<void()> showWindow;                            // before a page dialog
  std::function<GtkWindow*()> dialogParent;                    // the window dialogs belong to
  std::function<void(const std::string& url)> openExternally;  // the desktop's default handler
};

// Where WebKit keeps the page's storage (local storage, caches) for this user.
struct WebViewStorage {
  std::filesystem::path data;
  std::filesystem::path cache;
};

// The web view of the main window: the two page channels wired to the bridge, the runtime
// script injected at document start into every frame, the `qevnative` scheme answered from
// the asset scheme, and the link, new-window and dialog policies.
class WebViewHost {
 public:
  WebViewHost(bridge::NativeBridge& bridge, std::shared_ptr<const AssetScheme> scheme,
              const std::string& runtimeScript, const WebViewStorage& storage, WebViewHooks hooks);
  ~WebViewHost();
  WebViewHost(const WebViewHost&) = delete;
  WebViewHost& operator=(const WebViewHost&) = delete;

  WebKitWebView* view() const { return view_; }
  GtkWidget* widget() const { return GTK_WIDGET(view_); }
  void load(std::string_view url);

 private:
  static void onBridgeMessage(WebKitUserContentManager* manager, WebKitJavascriptResult* result,
                              gpointer self);
  static void onLogMessage(WebKitUserContentManager* manager, WebKitJavascriptResult* result,
                           gpointer self);
  static void onSchemeRequest(WebKitURISchemeRequest* request, gpointer scheme);
  static gboolean onDecidePolicy(WebKitWebView* view, WebKitPolicyDecision* decision,
                                 WebKitPolicyDecisionType type, gpointer self);
  static GtkWidget* onCreate(WebKitWebView* view, WebKitNavigationAction* action, gpointer self);
  static gboolean onScriptDialog(WebKitWebView* view, WebKitScriptDialog* dialog, gpointer self);
  static void onLoadFailed(WebKitWebView* view, WebKitLoadEvent event, gchar* uri, GError* error,
                           gpointer self);
  static void onWebProcessTerminated(WebKitWebView* view, WebKitWebProcessTerminationReason reason,
                                     gpointer self);

  void receive(std::string_view channel, WebKitJavascriptResult* result);
  void openExternally(const std::string& url);
  void runDialog(WebKitScriptDialog* dialog);

  bridge::NativeBridge& bridge_;
  WebViewHooks hooks_;
  WebKitUserContentManager* contentManager_ = nullptr;
  WebKitWebContext* context_ = nullptr;
  WebKitWebView* view_ = nullptr;  // one reference owned here, sunk from the floating one
};

}  // namespace qev::app
