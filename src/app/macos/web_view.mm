#import "app/macos/web_view.h"

#include <utility>

#import "app/macos/ns_text.h"
#include "base/json.h"
#include "qev/resources.h"

using qev::Json;
using qev::app::nsText;
using qev::app::utf8Text;

namespace {

NSString* const kBridgeChannel = @"nativeBridge";
NSString* const kLogChannel = @"nativeLog";
NSString* const kNativeWorld = @"qev-native";

// The page's message as JSON; anything JSON cannot express becomes null. The body is wrapped
// in an array because a bare string or number is not a JSON document to Foundation.
Json jsonOf(id body) {
  if (!body) return nullptr;
  NSArray* wrapped = @[ body ];
  if (![NSJSONSerialization isValidJSONObject:wrapped]) return nullptr;
  NSData* data = [NSJSONSerialization dataWithJSONObject:wrapped options:0 error:nil];
  if (!data) return nullptr;
  const Json parsed =
      qev::base::parseJson(std::string_view(static_cast<const char*>(data.bytes), data.length));
  return parsed.is_array() && parsed.size() == 1 ? parsed[0] : Json(nullptr);
}

NSError* schemeError(const qev::BridgeError& error) {
  // A file that could not be read reports its errno, as the system's own errors do.
  if (error.domain == qev::app::kReadErrorDomain) {
    return [NSError errorWithDomain:NSPOSIXErrorDomain code:error.code userInfo:nil];
  }
  return [NSError errorWithDomain:nsText(error.domain) code:error.code userInfo:nil];
}

}  // namespace

@implementation QEVAssetSchemeHandler {
  std::shared_ptr<const qev::app::AssetScheme> _scheme;
}

- (instancetype)initWithScheme:(std::shared_ptr<const qev::app::AssetScheme>)scheme {
  if ((self = [super init])) _scheme = std::move(scheme);
  return self;
}

- (void)webView:(WKWebView*)webView startURLSchemeTask:(id<WKURLSchemeTask>)task {
  NSURL* url = task.request.URL;
  auto served = _scheme->serve(url ? utf8Text(url.absoluteString) : std::string());
  if (!served) {
    [task didFailWithError:schemeError(served.error())];
    return;
  }
  const qev::app::Asset& asset = served.value();
  NSData* bytes = [NSData dataWithBytes:asset.bytes.data() length:asset.bytes.size()];
  NSURLResponse* response = [[NSURLResponse alloc] initWithURL:url
                                                      MIMEType:nsText(asset.mimeType)
                                         expectedContentLength:static_cast<NSInteger>(bytes.length)
                                              textEncodingName:nsText(asset.encoding)];
  [task didReceiveResponse:response];
  [task didReceiveData:bytes];
  [task didFinish];
}

- (void)webView:(WKWebView*)webView stopURLSchemeTask:(id<WKURLSchemeTask>)task {
  // Every task is answered at once in start; nothing is left to stop.
}

@end

@implementation QEVPageChannels {
  qev::bridge::NativeBridge* _bridge;  // cleared by disconnect, before the bridge goes
}

- (instancetype)initWithBridge:(qev::bridge::NativeBridge*)bridge {
  if ((self = [super init])) _bridge = bridge;
  return self;
}

- (void)disconnect {
  _bridge = nullptr;
}

- (void)userContentController:(WKUserContentController*)controller
      didReceiveScriptMessage:(WKScriptMessage*)message {
  if (!_bridge) return;
  // The relay runs only in the top frame, but a page that got there by a navigation the
  // delegate did not stop must not steer the core either.
  WKFrameInfo* frame = message.frameInfo;
  WKSecurityOrigin* origin = frame.securityOrigin;
  if (!frame.isMainFrame || utf8Text(origin.protocol) != qev::app::kAssetScheme ||
      ![origin.host isEqualToString:@"app"]) {
    _bridge->log().message("native.webview.foreignMessage: " + utf8Text(origin.protocol) + "://" +
                           utf8Text(origin.host));
    return;
  }
  _bridge->receive(utf8Text(message.name), jsonOf(message.body));
}

@end

namespace qev::app {

void WebViewAnswerSink::evaluate(const std::string& statement) {
  WKWebView* view = view_;
  // No completion: the statement's result and any error in it are of no interest.
  [view evaluateJavaScript:nsText(statement) completionHandler:nil];
}

WKWebViewConfiguration* makeWebViewConfiguration(const PageScripts& scripts,
                                                 QEVPageChannels* channels,
                                                 QEVAssetSchemeHandler* schemeHandler) {
  WKUserContentController* content = [[WKUserContentController alloc] init];
  // The handlers exist only in qev's own script world, which page scripts cannot enter.
  WKContentWorld* nativeWorld = [WKContentWorld worldWithName:kNativeWorld];
  [content addScriptMessageHandler:channels contentWorld:nativeWorld name:kBridgeChannel];
  [content addScriptMessageHandler:channels contentWorld:nativeWorld name:kLogChannel];
  [content
      addUserScript:[[WKUserScript alloc] initWithSource:nsText(resources::nativeRelayScript())
                                           injectionTime:WKUserScriptInjectionTimeAtDocumentStart
                                        forMainFrameOnly:YES
                                          inContentWorld:nativeWorld]];
  if (!scripts.runtime.empty()) {
    [content
        addUserScript:[[WKUserScript alloc] initWithSource:nsText(scripts.runtime)
                                             injectionTime:WKUserScriptInjectionTimeAtDocumentStart
                                          forMainFrameOnly:YES
                                            inContentWorld:WKContentWorld.pageWorld]];
  }

  WKWebViewConfiguration* configuration = [[WKWebViewConfiguration alloc] init];
  configuration.userContentController = content;
  [configuration setURLSchemeHandler:schemeHandler forURLScheme:nsText(kAssetScheme)];
  configuration.preferences.javaScriptCanOpenWindowsAutomatically = YES;
  configuration.defaultWebpagePreferences.allowsContentJavaScript = YES;
  return configuration;
}

}  // namespace qev::app
