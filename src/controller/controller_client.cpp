#include "controller/controller_client.h"

#include <unistd.h>
#if defined(__APPLE__)
#include <sys/random.h>
#endif

#include <array>
#include <utility>

#include "net/url.h"

namespace qev::controller {
namespace {

// The reply body as JSON: a 204 or an empty body is `true`; anything else must be an object or
// an array at top level.
Result<Json> decodeReply(const std::string& body) {
  if (body.empty()) return Json(true);
  Json value = base::parseJson(body);
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

std::string delayTestUrl(const std::string& base, std::string_view collection,
                         std::string_view name, int timeoutMs, std::string_view checkUrl) {
  return base + "/" + std::string(collection) + "/" + percentEncodePathComponent(name) +
         "/delay?timeout=" + std::to_string(timeoutMs) +
         "&url=" + percentEncodePathComponent(checkUrl);
}

ControllerClient::ControllerClient(net::HttpSession& session, const base::Logger& log,
                                   std::string base)
    : session_(session), log_(log), base_(std::move(base)) {}

bool ControllerClient::renewSecret() {
  std::array<unsigned char, 32> bytes{};
  if (::getentropy(bytes.data(), bytes.size()) != 0) {
    std::lock_guard lock(secretMutex_);
    secret_.clear();
    return false;
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(bytes.size() * 2);
  for (const unsigned char byte : bytes) {
    hex.push_back(kHex[byte >> 4]);
    hex.push_back(kHex[byte & 0xF]);
  }
  std::lock_guard lock(secretMutex_);
  secret_ = std::move(hex);
  return true;
}

std::string ControllerClient::secret() const {
  std::lock_guard lock(secretMutex_);
  return secret_;
}

void ControllerClient::authorize(net::HttpRequest& request) const {
  const std::string current = secret();
  if (!current.empty()) request.headers.emplace_back("Authorization", "Bearer " + current);
}

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
  authorize(request);
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
