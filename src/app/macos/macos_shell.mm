#include "app/macos/macos_shell.h"

#import <Cocoa/Cocoa.h>
#import <WebKit/WebKit.h>

#include <csignal>
#include <memory>
#include <string>
#include <utility>

#include "app/asset_scheme.h"
#import "app/macos/dispatch_main_queue.h"
#import "app/macos/ns_text.h"
#import "app/macos/status_item.h"
#import "app/macos/web_view.h"
#include "app/page_scripts.h"
#include "app/tray_menu.h"
#include "bridge/native_bridge.h"
#include "guard/crash_guard.h"
#include "qev/deployment.h"
#include "relay/external_links.h"

using qev::app::nsText;
using qev::app::utf8Text;

namespace {

constexpr CGFloat kWindowWidth = 420;
constexpr CGFloat kWindowHeight = 560;

NSString* displayName() {
  return nsText(qev::deployment::kDisplayName);
}

}  // namespace

// Owns everything the application builds at launch: the bridge, the web view, the window and
// the status item. Navigation and UI delegate of the web view.
@interface QEVAppDelegate
    : NSObject <NSApplicationDelegate, NSWindowDelegate, WKNavigationDelegate, WKUIDelegate>
- (instancetype)initWithEnvironment:(qev::storage::Environment)environment;
@end

@implementation QEVAppDelegate {
  qev::storage::Environment _environment;
  std::shared_ptr<qev::app::DispatchMainQueue> _mainQueue;
  std::unique_ptr<qev::bridge::NativeBridge> _bridge;
  std::unique_ptr<qev::guard::CrashGuard> _guard;
  std::shared_ptr<qev::app::WebViewAnswerSink> _answers;
  std::unique_ptr<qev::app::TrayMenu> _trayMenu;
  QEVPageChannels* _channels;
  QEVAssetSchemeHandler* _schemeHandler;
  WKWebView* _webView;
  NSWindow* _window;
  QEVStatusItem* _statusItem;
  NSMutableArray* _signalSources;
}

- (instancetype)initWithEnvironment:(qev::storage::Environment)environment {
  if ((self = [super init])) {
    _environment = std::move(environment);
    _mainQueue = std::make_shared<qev::app::DispatchMainQueue>();
    _signalSources = [NSMutableArray array];
  }
  return self;
}

- (void)applicationDidFinishLaunching:(NSNotification*)notification {
  [NSApp setActivationPolicy:NSApplicationActivationPolicyAccessory];

  auto profile = qev::storage::Profile::forThisPlatform(_environment);
  const auto resources = profile.paths.resources;
  const auto dist = profile.paths.dist;
  __weak QEVAppDelegate* weakSelf = self;
  // Runs the whole native start-up before the first page message can arrive.
  _bridge = std::make_unique<qev::bridge::NativeBridge>(
      std::move(profile), qev::bridge::ShellSeams{_mainQueue, [weakSelf](const std::string& url) {
                                                    [weakSelf openExternally:nsText(url)];
                                                  }});
  _guard =
      qev::guard::CrashGuard::engage(_bridge->profile(), _environment.executable, _bridge->log());

  auto scripts = qev::app::loadPageScripts(resources, _bridge->log());
  _schemeHandler =
      [[QEVAssetSchemeHandler alloc] initWithScheme:std::make_shared<const qev::app::AssetScheme>(
                                                        dist, std::move(scripts.ossConfig))];
  _channels = [[QEVPageChannels alloc] initWithBridge:_bridge.get()];
  _webView = [[WKWebView alloc]
      initWithFrame:NSZeroRect
      configuration:qev::app::makeWebViewConfiguration(scripts, _channels, _schemeHandler)];
  _webView.navigationDelegate = self;
  _webView.UIDelegate = self;
  _answers = std::make_shared<qev::app::WebViewAnswerSink>(_webView);
  _bridge->setAnswerSink(_answers);

  _window =
      [[NSWindow alloc] initWithContentRect:NSMakeRect(0, 0, kWindowWidth, kWindowHeight)
                                  styleMask:NSWindowStyleMaskTitled | NSWindowStyleMaskClosable |
                                            NSWindowStyleMaskMiniaturizable
                                    backing:NSBackingStoreBuffered
                                      defer:NO];
  _window.title = displayName();
  _window.releasedWhenClosed = NO;  // closing only hides; the status menu brings it back
  _window.contentView = _webView;
  _window.delegate = self;
  [_window center];

  _trayMenu = std::make_unique<qev::app::TrayMenu>(
      *_bridge, qev::app::TrayMenu::WindowActions{[weakSelf] { [weakSelf showWindow]; },
                                                  [] { [NSApp terminate:nil]; }});
  _statusItem = [[QEVStatusItem alloc] initWithMenu:_trayMenu.get()];
  [self watchQuitSignals];

  NSURL* start = [NSURL URLWithString:nsText(qev::app::kStartPageUrl)];
  [_webView loadRequest:[NSURLRequest requestWithURL:start]];
  _bridge->start();
  [self showWindow];
}

// A polite kill (logout, `kill`, Ctrl-C in a terminal) quits like the menu does, so the system
// proxy is never left pointing at a core that is gone.
- (void)watchQuitSignals {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    std::signal(number, SIG_IGN);  // the dispatch source alone hears it
    dispatch_source_t source =
        dispatch_source_create(DISPATCH_SOURCE_TYPE_SIGNAL, number, 0, dispatch_get_main_queue());
    dispatch_source_set_event_handler(source, ^{
      [NSApp terminate:nil];
    });
    dispatch_resume(source);
    [_signalSources addObject:source];
  }
}

- (void)showWindow {
  [NSApp activateIgnoringOtherApps:YES];
  [_window makeKeyAndOrderFront:nil];
}

- (void)openExternally:(NSString*)link {
  NSURL* url = [NSURL URLWithString:link];
  if (_bridge) _bridge->log().message("native.webview.openExternal: " + utf8Text(link));
  if (!url || ![NSWorkspace.sharedWorkspace openURL:url]) {
    if (_bridge) _bridge->log().message("native.openExternal.error: no handler");
  }
}

- (BOOL)applicationShouldTerminateAfterLastWindowClosed:(NSApplication*)sender {
  return NO;  // the application lives on in the menu bar
}

- (BOOL)applicationShouldHandleReopen:(NSApplication*)sender hasVisibleWindows:(BOOL)visible {
  [self showWindow];  // opened again from the Finder or the Dock
  return NO;
}

// Shutdown first, while the page and the queue still work, then the user interface.
- (void)applicationWillTerminate:(NSNotification*)notification {
  if (!_bridge) return;
  _bridge->log().message("native.app.quit: terminate");
  _bridge->shutdown();
  _guard.reset();  // a clean quit: the shutdown above has done the guard's work
  [_channels disconnect];
  [_webView.configuration.userContentController removeAllScriptMessageHandlers];
  [_statusItem remove];
  _mainQueue->close();
}

// Live numbers go to the page only while someone can see them.
- (void)windowDidChangeOcclusionState:(NSNotification*)notification {
  if (_bridge) _bridge->setPageVisible(_window.occlusionState & NSWindowOcclusionStateVisible);
}

- (void)webView:(WKWebView*)webView
    decidePolicyForNavigationAction:(WKNavigationAction*)action
                    decisionHandler:(void (^)(WKNavigationActionPolicy))decisionHandler {
  NSURL* url = action.request.URL;
  // A link to the web leaves for the browser when it would replace the page or open a window;
  // inside a sub-frame it stays there.
  if (url && qev::relay::shouldOpenExternally(utf8Text(url.absoluteString)) &&
      (!action.targetFrame || action.targetFrame.isMainFrame)) {
    [self openExternally:url.absoluteString];
    decisionHandler(WKNavigationActionPolicyCancel);
    return;
  }
  decisionHandler(WKNavigationActionPolicyAllow);
}

- (void)webView:(WKWebView*)webView
    didFailProvisionalNavigation:(WKNavigation*)navigation
                       withError:(NSError*)error {
  if (_bridge) {
    _bridge->log().message("native.webview.loadFailed: " + utf8Text(error.localizedDescription));
  }
}

- (void)webViewWebContentProcessDidTerminate:(WKWebView*)webView {
  if (_bridge) _bridge->log().message("native.webview.terminated");
  [webView reload];  // bring the page back rather than leave an empty window
}

- (WKWebView*)webView:(WKWebView*)webView
    createWebViewWithConfiguration:(WKWebViewConfiguration*)configuration
               forNavigationAction:(WKNavigationAction*)action
                    windowFeatures:(WKWindowFeatures*)windowFeatures {
  NSURL* url = action.request.URL;
  if (url && qev::relay::shouldOpenExternally(utf8Text(url.absoluteString))) {
    [self openExternally:url.absoluteString];
  }
  return nil;  // never a second window
}

- (NSAlert*)pageAlertWithMessage:(NSString*)message {
  [self showWindow];
  NSAlert* alert = [[NSAlert alloc] init];
  alert.alertStyle = NSAlertStyleInformational;
  alert.messageText = displayName();
  alert.informativeText = message;
  [alert addButtonWithTitle:@"确定"];
  return alert;
}

- (void)webView:(WKWebView*)webView
    runJavaScriptAlertPanelWithMessage:(NSString*)message
                      initiatedByFrame:(WKFrameInfo*)frame
                     completionHandler:(void (^)(void))completionHandler {
  [[self pageAlertWithMessage:message] beginSheetModalForWindow:_window
                                              completionHandler:^(NSModalResponse) {
                                                completionHandler();
                                              }];
}

- (void)webView:(WKWebView*)webView
    runJavaScriptConfirmPanelWithMessage:(NSString*)message
                        initiatedByFrame:(WKFrameInfo*)frame
                       completionHandler:(void (^)(BOOL))completionHandler {
  NSAlert* alert = [self pageAlertWithMessage:message];
  [alert addButtonWithTitle:@"取消"];
  [alert beginSheetModalForWindow:_window
                completionHandler:^(NSModalResponse response) {
                  completionHandler(response == NSAlertFirstButtonReturn);
                }];
}

@end

namespace qev::app {

int runMacos(const storage::Environment& environment) {
  @autoreleasepool {
    NSApplication* application = NSApplication.sharedApplication;
    // The application holds its delegate weakly; this frame keeps it for the whole run.
    QEVAppDelegate* delegate = [[QEVAppDelegate alloc] initWithEnvironment:environment];
    application.delegate = delegate;
    [application run];
  }
  return 0;
}

}  // namespace qev::app
