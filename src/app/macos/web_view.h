#pragma once

#import <WebKit/WebKit.h>

#include <memory>
#include <string>

#include "app/asset_scheme.h"
#include "app/page_scripts.h"
#include "bridge/native_bridge.h"

// Answers the `qevnative` scheme from the portable asset scheme, on the main thread.
@interface QEVAssetSchemeHandler : NSObject <WKURLSchemeHandler>
- (instancetype)initWithScheme:(std::shared_ptr<const qev::app::AssetScheme>)scheme;
@end

// The page's two channels ("nativeBridge", "nativeLog"), handed to the bridge. Only the app's
// own page in the top frame is heard.
@interface QEVPageChannels : NSObject <WKScriptMessageHandler>
- (instancetype)initWithBridge:(qev::bridge::NativeBridge*)bridge;
// From now on messages are dropped: the bridge is going away.
- (void)disconnect;
@end

namespace qev::app {

// Answers and events for the page, evaluated in its own script world. The bridge holds the sink
// weakly and the sink holds the view weakly: a view that is gone drops them.
class WebViewAnswerSink final : public bridge::AnswerSink {
 public:
  explicit WebViewAnswerSink(WKWebView* view) : view_(view) {}
  void deliver(const bridge::Answer& answer) override { evaluate(answer.statement); }
  void push(const bridge::Event& event) override { evaluate(event.statement); }

 private:
  void evaluate(const std::string& statement);

  __weak WKWebView* view_;
};

// The web view's configuration: the channels and the relay script in qev's own script world,
// the runtime at document start in the page's top frame, the scheme handler, and JavaScript
// allowed to open windows (which the UI delegate turns into external links).
WKWebViewConfiguration* makeWebViewConfiguration(const PageScripts& scripts,
                                                 QEVPageChannels* channels,
                                                 QEVAssetSchemeHandler* schemeHandler);

}  // namespace qev::app
