#include "relay/http_relay.h"

#include <memory>
#include <utility>

#include "base/constants.h"
#include "base/redaction.h"
#include "base/strings.h"
#include "config/routing_mode.h"
#include "relay/login_compat.h"
#include "relay/relay_urls.h"

namespace qev::relay {
namespace {

constexpr std::string_view kLoginPath = "/api/v1/passport/auth/login";
constexpr std::string_view kUsageReportReply = "{\"data\":true}";
// The page holds every answer whole, as a string; nothing it asks for legitimately comes close.
constexpr std::size_t kMaxRelayBodyBytes = 16u << 20;

bool isControllerConfigWrite(const net::HttpRequest& request, const net::Url& url) {
  return isLoopbackHost(url.host) && url.path == "/configs" &&
         (request.method == "PUT" || request.method == "PATCH");
}

Json replyRecord(long status, std::string statusText, Json headers, std::string body) {
  return Json{{"status", status},
              {"statusText", std::move(statusText)},
              {"headers", std::move(headers)},
              {"body", std::move(body)}};
}

}  // namespace

HttpRelay::HttpRelay(net::HttpSession& session, controller::ControllerClient& controller,
                     const storage::SettingsStore& settings, const base::Logger& log,
                     std::string apiBase)
    : session_(session),
      controller_(controller),
      settings_(settings),
      log_(log),
      apiBase_(std::move(apiBase)),
      apiBaseUrl_(net::parseUrl(apiBase_)) {}

void HttpRelay::nativeHttpRequest(const Json& args, ResolveReply resolve, RejectReply reject) {
  auto parsed = requestFromRecord(base::firstArg(args));
  if (!parsed) {
    reject(parsed.error());
    return;
  }
  net::HttpRequest request = std::move(parsed).value();
  log_.message("native.http.start: " + request.method + " " + base::redactURLString(request.url));

  const auto target = net::parseUrl(request.url);
  if (target && apiBaseUrl_ && isUsageReportRequest(*target, *apiBaseUrl_)) {
    log_.message("native.http.mock: " + request.method + " 200 " +
                 std::to_string(kUsageReportReply.size()) + "b");
    resolve(replyRecord(200, "ok", Json{{"Content-Type", "application/json"}},
                        std::string(kUsageReportReply)));
    return;
  }

  request.url = transportSafeURL(rewriteLocalControllerURL(request.url));
  request.maxBodyBytes = kMaxRelayBodyBytes;
  const auto sent = net::parseUrl(request.url);
  const bool configWrite = sent && isControllerConfigWrite(request, *sent);
  if (configWrite) rememberModeChange(request);
  if (sent && isLoopbackHost(sent->host) && sent->port == kControllerPort) {
    // The page reaches the core through the relay without ever holding its secret.
    std::erase_if(request.headers, [](const auto& header) {
      return base::toLowerAscii(header.first) == "authorization";
    });
    controller_.authorize(request);
  }

  auto shared = std::make_shared<const net::HttpRequest>(request);
  session_.send(std::move(request),
                [this, shared, configWrite, resolve = std::move(resolve),
                 reject = std::move(reject)](Result<net::HttpResponse> outcome) {
                  complete(*shared, configWrite, std::move(outcome), resolve, reject);
                });
}

void HttpRelay::rememberModeChange(const net::HttpRequest& request) {
  if (!request.body) return;
  const Json config = base::parseJson(*request.body);
  if (!config.is_object()) return;
  const auto mode = config.find("mode");
  if (mode == config.end() || !mode->is_string()) return;
  const auto normalized = config::normalizedMihomoMode(mode->get<std::string>());
  if (!normalized) return;
  if (const auto ec = settings_.update([&](Json& settings) { settings["mode"] = *normalized; })) {
    log_.message("native.mode.save.http.error: " + ec.message());
  }
  log_.message("native.mode.set.http: " + *normalized);
}

void HttpRelay::complete(const net::HttpRequest& request, bool closeConnectionsAfter,
                         Result<net::HttpResponse> outcome, const ResolveReply& resolve,
                         const RejectReply& reject) {
  const std::string redactedUrl = base::redactURLString(request.url);
  if (!outcome) {
    const auto& error = outcome.error();
    log_.message("native.http.error: " + redactedUrl + " " + error.description);
    if (net::isBodyTooLarge(error)) {
      reject(BridgeError::system(
          "response larger than " + net::describeMebibytes(kMaxRelayBodyBytes), error.code));
      return;
    }
    if (isOSSConfigRequest(request.url)) {
      resolve(replyRecord(503, "Service Unavailable", Json{{"Content-Type", "text/plain"}},
                          utf8Text(error.description)));
    } else {
      reject(error);
    }
    return;
  }

  net::HttpResponse& response = outcome.value();
  std::string body = utf8Text(response.body);
  const auto url = net::parseUrl(request.url);
  if (url && url->path.find(kLoginPath) != std::string::npos) {
    body = xboardLoginCompatBody(body);
    log_.message("native.login.response: " + base::redactedJSONPreview(body));
  }
  log_.message("native.http.done: " + redactedUrl + " " + std::to_string(response.status) + " " +
               std::to_string(body.size()) + "b");
  std::string statusText =
      response.reason.empty() ? net::reasonPhrase(response.status) : std::move(response.reason);
  const bool succeeded = response.status >= 200 && response.status < 300;
  resolve(replyRecord(response.status, std::move(statusText), replyHeaders(response.headers),
                      std::move(body)));

  // New settings apply to new traffic only: drop the connections opened under
  // the old ones.
  if (closeConnectionsAfter && succeeded) controller_.closeConnections([] {});
}

}  // namespace qev::relay
