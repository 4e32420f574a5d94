#include "core/controller_readiness.h"

#include <memory>
#include <utility>

#include "net/url.h"

namespace qev::core {

ControllerReadiness::ControllerReadiness(net::HttpSession& session,
                                         controller::ControllerClient& controller,
                                         base::Executors& executors, ReadinessTimings timings)
    : session_(session), controller_(controller), executors_(executors), timings_(timings) {}

void ControllerReadiness::isControllerReady(std::function<void(bool)> completion) {
  const std::string url = controller_.base() + "/";
  if (!net::parseUrl(url)) {
    completion(false);
    return;
  }
  net::HttpRequest request;
  request.method = "GET";
  request.url = url;
  request.timeout = timings_.probeTimeout;
  controller_.authorize(request);
  // Only the core greets: a 401 (another user's core) or a foreign program is not ready.
  session_.send(std::move(request),
                [completion = std::move(completion)](Result<net::HttpResponse> reply) {
                  if (!reply || reply.value().status != 200) {
                    completion(false);
                    return;
                  }
                  const Json body = base::parseJson(reply.value().body);
                  completion(body.is_object() && body.contains("hello"));
                });
}

void ControllerReadiness::waitForController(std::chrono::milliseconds budget,
                                            std::function<void(bool)> completion,
                                            std::function<bool()> hopeless) {
  poll(std::chrono::system_clock::now() + budget, std::move(completion), std::move(hopeless));
}

void ControllerReadiness::poll(std::chrono::system_clock::time_point deadline,
                               std::function<void(bool)> completion,
                               std::function<bool()> hopeless) {
  isControllerReady([this, deadline, completion = std::move(completion),
                     hopeless = std::move(hopeless)](bool ready) mutable {
    if (ready) {
      completion(true);
      return;
    }
    if (std::chrono::system_clock::now() >= deadline || (hopeless && hopeless())) {
      completion(false);
      return;
    }
    executors_.postAfter(timings_.pollInterval, [this, deadline, completion = std::move(completion),
                                                 hopeless = std::move(hopeless)]() mutable {
      poll(deadline, std::move(completion), std::move(hopeless));
    });
  });
}

void ControllerReadiness::ensureProxyPorts(std::function<void()> completion) {
  const Json body = {{"port", kHttpProxyPort}, {"socks-port", kSocksProxyPort}};
  controller_.httpJSON("PUT", controller_.base() + "/configs", body,
                       [completion = std::move(completion)](const Result<Json>&) {
                         if (completion) completion();
                       });
}

}  // namespace qev::core
