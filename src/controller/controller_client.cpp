#include "controller/controller_client.h"

#include <utility>

#include "net/url.h"

namespace qev::controller {
namespace {

// The reply body as JSON: a 204 or an empty body is `true`; anything else must be an object or
// an array at top level.
Result<Json> decodeReply(const std::string& body) {
  if (body.empty()) return Json(true);
  Json value = Json::parse(body, nullptr, false);
  if (value.is_discarded()) {
    return BridgeError::system("The data couldn't be read because it isn't in the correct format.");
  }
  if (!value.is_object() && !value.is_array()) {
    return BridgeError::system("JSON text did not start with array or object.");
  }
  return value;
}

}  // namespace

std::string percentEncodePathComponent(std::string_view name) {
  return net::percentEncodePath(name, true);
}

ControllerClient::ControllerClient(net::HttpSession& session, const base::Logger& log,
                                   std::string base)
    : session_(session), log_(log), base_(std::move(base)) {}

void ControllerClient::httpJSON(std::string method, const std::string& url,
                                std::optional<Json> body, JsonCompletion completion) {
  if (!net::parseUrl(url)) {
    completion(BridgeError::native(4, "bad URL"));
    return;
  }
  net::HttpRequest request;
  request.method = std::move(method);
  request.url = url;
  request.timeout = kControllerRequestTimeout;
  if (body) {
    request.headers.emplace_back("Content-Type", "application/json");
    try {
      request.body = body->dump();
    } catch (const Json::exception&) {
      // Text that is not UTF-8 cannot be serialised; the request still goes out, without body.
    }
  }
  session_.send(std::move(request),
                [completion = std::move(completion)](Result<net::HttpResponse> reply) {
                  if (!reply) {
                    completion(reply.error());
                    return;
                  }
                  completion(decodeReply(reply.value().body));
                });
}

void ControllerClient::closeConnections(std::function<void()> completion) {
  httpJSON("DELETE", base_ + "/connections", std::nullopt,
           [this, completion = std::move(completion)](Result<Json> result) {
             if (result) {
               log_.message("native.connections.closed");
             } else {
               log_.message("native.connections.close.error: " + result.error().description);
             }
             if (completion) completion();
           });
}

}  // namespace qev::controller
