// The yardstick of the desktop shell benchmark: the least a WebKitGTK window needs to show
// the same page. One 420 x 560 window, the page's files served from a folder under the same
// scheme, the same injected runtime, and, as in qev, the message handlers in an isolated world
// that only the relay script reaches; the "nativeBridge" handler echoes every request straight
// back. The page's log messages are printed on standard output.
//
//   bare_webview <dist folder> <runtime script> <relay script>

#include <webkit2/webkit2.h>

#include <cstdio>
#include <string>

namespace {

struct Bare {
  std::string dist;
  WebKitWebView* view = nullptr;
};

const char* mimeTypeOf(const std::string& path) {
  const auto dot = path.rfind('.');
  const std::string ext = dot == std::string::npos ? "" : path.substr(dot + 1);
  if (ext == "html") return "text/html";
  if (ext == "js") return "application/javascript";
  if (ext == "css") return "text/css";
  if (ext == "json") return "application/json";
  return "application/octet-stream";
}

void serve(WebKitURISchemeRequest* request, gpointer data) {
  const auto* bare = static_cast<Bare*>(data);
  std::string path = webkit_uri_scheme_request_get_path(request);
  if (path.empty() || path == "/") path = "/index.html";
  const std::string file = bare->dist + path;
  gchar* contents = nullptr;
  gsize length = 0;
  GError* error = nullptr;
  if (!g_file_get_contents(file.c_str(), &contents, &length, &error)) {
    webkit_uri_scheme_request_finish_error(request, error);
    g_error_free(error);
    return;
  }
  GInputStream* stream =
      g_memory_input_stream_new_from_data(contents, static_cast<gssize>(length), g_free);
  webkit_uri_scheme_request_finish(request, stream, static_cast<gint64>(length), mimeTypeOf(file));
  g_object_unref(stream);
}

// Echo: {id, name, args} is answered at once with {name, args}.
void echo(WebKitUserContentManager*, WebKitJavascriptResult* result, gpointer data) {
  auto* bare = static_cast<Bare*>(data);
  JSCValue* message = webkit_javascript_result_get_js_value(result);
  JSCValue* id = jsc_value_object_get_property(message, "id");
  gchar* idJson = jsc_value_to_json(id, 0);
  gchar* body = jsc_value_to_json(message, 0);
  gchar* statement =
      g_strdup_printf("window.__nativeBridgeResolve && window.__nativeBridgeResolve(%s, %s);",
                      idJson ? idJson : "\"\"", body ? body : "null");
  webkit_web_view_evaluate_javascript(bare->view, statement, -1, nullptr, nullptr, nullptr, nullptr,
                                      nullptr);
  g_free(statement);
  g_free(body);
  g_free(idJson);
  g_object_unref(id);
}

void printLog(WebKitUserContentManager*, WebKitJavascriptResult* result, gpointer) {
  JSCValue* message = webkit_javascript_result_get_js_value(result);
  JSCValue* text = jsc_value_object_get_property(message, "message");
  gchar* line = jsc_value_to_string(text);
  std::printf("%s\n", line);
  std::fflush(stdout);
  g_free(line);
  g_object_unref(text);
}

// Injects a script file at document start in the top frame, in `world` or the page's own.
bool addScript(WebKitUserContentManager* content, const char* file, const char* world) {
  gchar* source = nullptr;
  if (!g_file_get_contents(file, &source, nullptr, nullptr)) {
    std::fprintf(stderr, "bare_webview: cannot read %s\n", file);
    return false;
  }
  WebKitUserScript* script =
      world ? webkit_user_script_new_for_world(source, WEBKIT_USER_CONTENT_INJECT_TOP_FRAME,
                                               WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, world,
                                               nullptr, nullptr)
            : webkit_user_script_new(source, WEBKIT_USER_CONTENT_INJECT_TOP_FRAME,
                                     WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, nullptr, nullptr);
  webkit_user_content_manager_add_script(content, script);
  webkit_user_script_unref(script);
  g_free(source);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: %s <dist folder> <runtime script> <relay script>\n", argv[0]);
    return 2;
  }
  gtk_init(&argc, &argv);
  Bare bare{argv[1]};

  WebKitUserContentManager* content = webkit_user_content_manager_new();
  g_signal_connect(content, "script-message-received::nativeBridge", G_CALLBACK(echo), &bare);
  g_signal_connect(content, "script-message-received::nativeLog", G_CALLBACK(printLog), &bare);
  const char* world = "qev-native";
  webkit_user_content_manager_register_script_message_handler_in_world(content, "nativeBridge",
                                                                       world);
  webkit_user_content_manager_register_script_message_handler_in_world(content, "nativeLog", world);
  if (!addScript(content, argv[2], nullptr) || !addScript(content, argv[3], world)) return 1;

  WebKitWebContext* context = webkit_web_context_new();
  webkit_web_context_register_uri_scheme(context, "qevnative", serve, &bare, nullptr);
  webkit_security_manager_register_uri_scheme_as_secure(
      webkit_web_context_get_security_manager(context), "qevnative");
  webkit_security_manager_register_uri_scheme_as_cors_enabled(
      webkit_web_context_get_security_manager(context), "qevnative");
  bare.view = WEBKIT_WEB_VIEW(g_object_new(WEBKIT_TYPE_WEB_VIEW, "web-context", context,
                                           "user-content-manager", content, nullptr));

  GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_title(GTK_WINDOW(window), "bare");
  gtk_widget_set_size_request(GTK_WIDGET(bare.view), 420, 560);
  gtk_window_set_resizable(GTK_WINDOW(window), FALSE);
  gtk_container_add(GTK_CONTAINER(window), GTK_WIDGET(bare.view));
  g_signal_connect(window, "destroy", G_CALLBACK(gtk_main_quit), nullptr);
  webkit_web_view_load_uri(bare.view, "qevnative://app/");
  gtk_widget_show_all(window);
  gtk_main();
  return 0;
}
