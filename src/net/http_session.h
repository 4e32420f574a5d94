#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/error.h"
#include "base/executors.h"

namespace qev::net {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
  std::string method = "GET";
  std::string url;
  HeaderList headers;
  std::optional<std::string> body;
  std::chrono::milliseconds timeout{60000};
  // A larger body ends the transfer with a failure instead of being held whole in memory.
  std::optional<std::size_t> maxBodyBytes;
  // A stream: the body goes here piece by piece, as it arrives, on the transfer thread (be
  // quick), instead of into the response; false ends the transfer. The time-out then bounds
  // the wait for the response head only, and the completion runs when the stream ends.
  std::function<bool(std::string_view)> onData;
};

struct HttpResponse {
  long status = 0;
  std::string reason;  // the standard reason phrase of the status
  HeaderList headers;  // in arrival order, names as sent
  std::string body;
};

// The description of the failure of a transfer whose body passed its `maxBodyBytes`.
inline constexpr std::string_view kBodyTooLarge = "response body too large";
bool isBodyTooLarge(const BridgeError& error);
// A size limit as users read it: "16 MiB".
std::string describeMebibytes(std::size_t bytes);

// A transport failure arrives as a BridgeError whose description is the transport's text.
using HttpCompletion = std::function<void(Result<HttpResponse>)>;

// The standard reason phrase of an HTTP status ("OK", "Not Found", ...); "" when unknown.
std::string reasonPhrase(long status);

// Asynchronous HTTP(S) on libcurl: one thread drives all transfers; completions run on one
// serial session queue, never on the main thread. Shared by the controller client, the
// subscription download and the page relay.
class HttpSession {
 public:
  explicit HttpSession(base::Executors& executors);
  ~HttpSession();
  HttpSession(const HttpSession&) = delete;
  HttpSession& operator=(const HttpSession&) = delete;

  // Never blocks; the completion runs exactly once (not at all after stop()).
  void send(HttpRequest request, HttpCompletion completion);

  // Cancels transfers and joins the transfer thread. Idempotent.
  void stop();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qev::net
