#include "app/gtk/web_view_host.h"

#include <string>
#include <utility>

#include "base/json.h"
#include "base/strings.h"
#include "qev/deployment.h"
#include "qev/resources.h"
#include "relay/external_links.h"

namespace qev::app {
namespace {

constexpr const char* kBridgeChannel = "nativeBridge";
constexpr const char* kLogChannel = "nativeLog";
constexpr const char* kNativeWorld = "qev-native";

std::string uriOf(WebKitURIRequest* request) {
  const char* uri = request ? webkit_uri_request_get_uri(request) : nullptr;
  return uri ? uri : "";
}

// The page's message as JSON; anything JSON cannot express becomes null.
Json jsonOf(WebKitJavascriptResult* result) {
  JSCValue* value = webkit_javascript_result_get_js_value(result);
  if (!value) return nullptr;
  char* text = jsc_value_to_json(value, 0);
  if (!text) return nullptr;
  Json parsed = base::parseJson(text);
  g_free(text);
  return parsed.is_discarded() ? Json(nullptr) : parsed;
}

// A page dialog waiting for its answer; the WebKit dialog stays referenced until then.
struct PendingDialog {
  WebKitScriptDialog* dialog;
};

constexpr int kConfirmResponse = GTK_RESPONSE_OK;

void onDialogResponse(GtkDialog* widget, gint response, gpointer data) {
  auto* pending = static_cast<PendingDialog*>(data);
  if (webkit_script_dialog_get_dialog_type(pending->dialog) == WEBKIT_SCRIPT_DIALOG_CONFIRM) {
    webkit_script_dialog_confirm_set_confirmed(pending->dialog, response == kConfirmResponse);
  }
  webkit_script_dialog_close(pending->dialog);
  webkit_script_dialog_unref(pending->dialog);
  delete pending;
  gtk_widget_destroy(GTK_WIDGET(widget));
}

void freeScheme(gpointer data) {
  delete static_cast<std::shared_ptr<const AssetScheme>*>(data);
}

void freeOwnedBytes(gpointer data) {
  delete static_cast<std::string*>(data);
}

GQuark errorDomain(const BridgeError& error) {
  if (error.domain == kReadErrorDomain) return G_FILE_ERROR;
  return g_quark_from_string(error.domain.c_str());
}

int errorCode(const BridgeError& error) {
  if (error.domain == kReadErrorDomain) return g_file_error_from_errno(error.code);
  return error.code;
}

}  // namespace

using relay::shouldOpenExternally;

WebViewAnswerSink::WebViewAnswerSink(WebKitWebView* view) : view_(view) {
  if (view_) g_object_add_weak_pointer(G_OBJECT(view_), reinterpret_cast<gpointer*>(&view_));
}

WebViewAnswerSink::~WebViewAnswerSink() {
  if (view_) g_object_remove_weak_pointer(G_OBJECT(view_), reinterpret_cast<gpointer*>(&view_));
}

void WebViewAnswerSink::deliver(const bridge::Answer& answer) {
  evaluate(answer.statement);
}

void WebViewAnswerSink::push(const bridge::Event& event) {
  evaluate(event.statement);
}

void WebViewAnswerSink::evaluate(const std::string& statement) {
  if (!view_) return;
  // No completion: the statement's result and any error in it are of no interest.
  webkit_web_view_evaluate_javascript(view_, statement.data(),
                                      static_cast<gssize>(statement.size()), nullptr, nullptr,
                                      nullptr, nullptr, nullptr);
}

WebViewHost::WebViewHost(bridge::NativeBridge& bridge, std::shared_ptr<const AssetScheme> scheme,
                         const std::string& runtimeScript, const WebViewStorage& storage,
                         WebViewHooks hooks)
    : bridge_(bridge), hooks_(std::move(hooks)) {
  // Page channels: connect before registering, so no message can slip through unhandled.
  contentManager_ = webkit_user_content_manager_new();
  g_signal_connect(contentManager_, "script-message-received::nativeBridge",
                   G_CALLBACK(onBridgeMessage), this);
  g_signal_connect(contentManager_, "script-message-received::nativeLog", G_CALLBACK(onLogMessage),
                   this);
  // The handlers exist only in qev's own script world, which page scripts cannot enter; the
  // relay there, and the runtime in the page's world, run only in the top frame of the app's
  // own pages. No other frame or origin can reach the native side.
  webkit_user_content_manager_register_script_message_handler_in_world(
      contentManager_, kBridgeChannel, kNativeWorld);
  webkit_user_content_manager_register_script_message_handler_in_world(contentManager_, kLogChannel,
                                                                       kNativeWorld);
  const std::string appPages = std::string(kAssetScheme) + "://app/*";
  const char* const allowList[] = {appPages.c_str(), nullptr};
  const std::string relay(resources::nativeRelayScript());
  WebKitUserScript* relayScript = webkit_user_script_new_for_world(
      relay.c_str(), WEBKIT_USER_CONTENT_INJECT_TOP_FRAME,
      WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, kNativeWorld, allowList, nullptr);
  webkit_user_content_manager_add_script(contentManager_, relayScript);
  webkit_user_script_unref(relayScript);
  if (!runtimeScript.empty()) {
    WebKitUserScript* script =
        webkit_user_script_new(runtimeScript.c_str(), WEBKIT_USER_CONTENT_INJECT_TOP_FRAME,
                               WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, allowList, nullptr);
    webkit_user_content_manager_add_script(contentManager_, script);
    webkit_user_script_unref(script);
  }

  WebKitWebsiteDataManager* data =
      webkit_website_data_manager_new("base-data-directory", storage.data.c_str(),
                                      "base-cache-directory", storage.cache.c_str(), nullptr);
  context_ = webkit_web_context_new_with_website_data_manager(data);
  g_object_unref(data);
  webkit_web_context_register_uri_scheme(
      context_, std::string(kAssetScheme).c_str(), onSchemeRequest,
      new std::shared_ptr<const AssetScheme>(std::move(scheme)), freeScheme);
  // Secure so the page counts as a secure context; CORS-enabled so its fetch and
  // XMLHttpRequest calls to its own files succeed.
  WebKitSecurityManager* security = webkit_web_context_get_security_manager(context_);
  webkit_security_manager_register_uri_scheme_as_secure(security,
                                                        std::string(kAssetScheme).c_str());
  webkit_security_manager_register_uri_scheme_as_cors_enabled(security,
                                                              std::string(kAssetScheme).c_str());

  WebKitSettings* settings = webkit_settings_new();
  webkit_settings_set_enable_javascript(settings, TRUE);
  webkit_settings_set_javascript_can_open_windows_automatically(settings, TRUE);

  view_ = WEBKIT_WEB_VIEW(g_object_new(WEBKIT_TYPE_WEB_VIEW, "web-context", context_,
                                       "user-content-manager", contentManager_, "settings",
                                       settings, nullptr));
  g_object_ref_sink(view_);
  g_object_unref(settings);

  g_signal_connect(view_, "decide-policy", G_CALLBACK(onDecidePolicy), this);
  g_signal_connect(view_, "create", G_CALLBACK(onCreate), this);
  g_signal_connect(view_, "script-dialog", G_CALLBACK(onScriptDialog), this);
  g_signal_connect(view_, "load-failed", G_CALLBACK(onLoadFailed), this);
  g_signal_connect(view_, "web-process-terminated", G_CALLBACK(onWebProcessTerminated), this);
}

WebViewHost::~WebViewHost() {
  g_signal_handlers_disconnect_by_data(view_, this);
  g_signal_handlers_disconnect_by_data(contentManager_, this);
  if (GtkWidget* parent = gtk_widget_get_parent(GTK_WIDGET(view_))) {
    gtk_container_remove(GTK_CONTAINER(parent), GTK_WIDGET(view_));
  }
  gtk_widget_destroy(GTK_WIDGET(view_));
  g_object_unref(view_);
  g_object_unref(context_);
  g_object_unref(contentManager_);
}

void WebViewHost::load(std::string_view url) {
  webkit_web_view_load_uri(view_, std::string(url).c_str());
}

void WebViewHost::onBridgeMessage(WebKitUserContentManager*, WebKitJavascriptResult* result,
                                  gpointer self) {
  static_cast<WebViewHost*>(self)->receive(kBridgeChannel, result);
}

void WebViewHost::onLogMessage(WebKitUserContentManager*, WebKitJavascriptResult* result,
                               gpointer self) {
  static_cast<WebViewHost*>(self)->receive(kLogChannel, result);
}

void WebViewHost::receive(std::string_view channel, WebKitJavascriptResult* result) {
  bridge_.receive(channel, jsonOf(result));
}

void WebViewHost::onSchemeRequest(WebKitURISchemeRequest* request, gpointer data) {
  const auto& scheme = *static_cast<std::shared_ptr<const AssetScheme>*>(data);
  const char* uri = webkit_uri_scheme_request_get_uri(request);
  auto served = scheme->serve(uri ? uri : "");
  if (!served) {
    GError* error = g_error_new_literal(errorDomain(served.error()), errorCode(served.error()),
                                        served.error().description.c_str());
    webkit_uri_scheme_request_finish_error(request, error);
    g_error_free(error);
    return;
  }
  Asset asset = std::move(served).value();
  auto* owned = new std::string(std::move(asset.bytes));
  const auto length = static_cast<gint64>(owned->size());
  GBytes* bytes = g_bytes_new_with_free_func(owned->data(), owned->size(), freeOwnedBytes, owned);
  GInputStream* stream = g_memory_input_stream_new_from_bytes(bytes);
  g_bytes_unref(bytes);
  WebKitURISchemeResponse* response = webkit_uri_scheme_response_new(stream, length);
  g_object_unref(stream);
  // WebKit splits the charset off the content type: MIME type plus text encoding.
  const std::string contentType = asset.mimeType + "; charset=" + asset.encoding;
  webkit_uri_scheme_response_set_content_type(response, contentType.c_str());
  webkit_uri_scheme_request_finish_with_response(request, response);
  g_object_unref(response);
}

gboolean WebViewHost::onDecidePolicy(WebKitWebView*, WebKitPolicyDecision* decision,
                                     WebKitPolicyDecisionType type, gpointer self) {
  auto* host = static_cast<WebViewHost*>(self);
  if (type == WEBKIT_POLICY_DECISION_TYPE_RESPONSE) {
    // A main-frame load that got this far without a user's gesture (a scripted redirect)
    // still must not replace the application's page.
    auto* response = WEBKIT_RESPONSE_POLICY_DECISION(decision);
    const std::string uri = uriOf(webkit_response_policy_decision_get_request(response));
    if (!webkit_response_policy_decision_is_main_frame_main_resource(response) ||
        !shouldOpenExternally(uri)) {
      return FALSE;
    }
    host->openExternally(uri);
    webkit_policy_decision_ignore(decision);
    return TRUE;
  }

  auto* navigation = WEBKIT_NAVIGATION_POLICY_DECISION(decision);
  WebKitNavigationAction* action =
      webkit_navigation_policy_decision_get_navigation_action(navigation);
  const std::string uri = uriOf(webkit_navigation_action_get_request(action));
  if (uri.empty() || !shouldOpenExternally(uri)) return FALSE;
  // WebKitGTK does not say which frame a navigation targets. A new-window navigation or one
  // the user started (a click, a form) goes out at once; a sub-frame loading its own content
  // has no gesture and is allowed, and the response check above stops a main-frame one.
  const bool web = base::toLowerAscii(uri.substr(0, 4)) == "http";
  if (type == WEBKIT_POLICY_DECISION_TYPE_NEW_WINDOW_ACTION ||
      webkit_navigation_action_is_user_gesture(action) || !web) {
    host->openExternally(uri);
    webkit_policy_decision_ignore(decision);
    return TRUE;
  }
  return FALSE;
}

GtkWidget* WebViewHost::onCreate(WebKitWebView*, WebKitNavigationAction* action, gpointer self) {
  const std::string uri = uriOf(webkit_navigation_action_get_request(action));
  if (!uri.empty() && shouldOpenExternally(uri)) {
    static_cast<WebViewHost*>(self)->openExternally(uri);
  }
  return nullptr;  // never a second window
}

gboolean WebViewHost::onScriptDialog(WebKitWebView*, WebKitScriptDialog* dialog, gpointer self) {
  const auto type = webkit_script_dialog_get_dialog_type(dialog);
  if (type != WEBKIT_SCRIPT_DIALOG_ALERT && type != WEBKIT_SCRIPT_DIALOG_CONFIRM) return FALSE;
  static_cast<WebViewHost*>(self)->runDialog(dialog);
  return TRUE;
}

void WebViewHost::runDialog(WebKitScriptDialog* dialog) {
  if (hooks_.showWindow) hooks_.showWindow();
  GtkWindow* parent = hooks_.dialogParent ? hooks_.dialogParent() : nullptr;
  const std::string title(deployment::kDisplayName);
  GtkWidget* box = gtk_message_dialog_new(
      parent, static_cast<GtkDialogFlags>(GTK_DIALOG_MODAL | GTK_DIALOG_DESTROY_WITH_PARENT),
      GTK_MESSAGE_INFO, GTK_BUTTONS_NONE, "%s", title.c_str());
  gtk_message_dialog_format_secondary_text(GTK_MESSAGE_DIALOG(box), "%s",
                                           webkit_script_dialog_get_message(dialog));
  gtk_window_set_title(GTK_WINDOW(box), title.c_str());
  // The affirmative button sits last, at the right, as on every GNOME dialog.
  if (webkit_script_dialog_get_dialog_type(dialog) == WEBKIT_SCRIPT_DIALOG_CONFIRM) {
    gtk_dialog_add_button(GTK_DIALOG(box), "取消", GTK_RESPONSE_CANCEL);
  }
  gtk_dialog_add_button(GTK_DIALOG(box), "确定", kConfirmResponse);
  gtk_dialog_set_default_response(GTK_DIALOG(box), kConfirmResponse);
  // Answered asynchronously: WebKit keeps the page waiting until the dialog is closed.
  auto* pending = new PendingDialog{webkit_script_dialog_ref(dialog)};
  g_signal_connect(box, "response", G_CALLBACK(onDialogResponse), pending);
  gtk_window_present(GTK_WINDOW(box));
}

void WebViewHost::onLoadFailed(WebKitWebView*, WebKitLoadEvent, gchar* uri, GError* error,
                               gpointer self) {
  static_cast<WebViewHost*>(self)->bridge_.log().message(
      std::string("native.webview.loadFailed: ") + (uri ? uri : "") + " " +
      (error ? error->message : ""));
}

void WebViewHost::onWebProcessTerminated(WebKitWebView* view,
                                         WebKitWebProcessTerminationReason reason, gpointer self) {
  auto* host = static_cast<WebViewHost*>(self);
  host->bridge_.log().message("native.webview.terminated: " + std::to_string(reason));
  // Bring the page back rather than leave an empty window.
  webkit_web_view_reload(view);
}

void WebViewHost::openExternally(const std::string& url) {
  bridge_.log().message("native.webview.openExternal: " + url);
  if (hooks_.openExternally) hooks_.openExternally(url);
}

}  // namespace qev::app
