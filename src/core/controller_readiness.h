#pragma once

#include <chrono>
#include <functional>

#include "base/constants.h"
#include "base/executors.h"
#include "controller/controller_client.h"
#include "net/http_session.h"

namespace qev::core {

struct ReadinessTimings {
  std::chrono::milliseconds probeTimeout = kControllerProbeTimeout;
  std::chrono::milliseconds pollInterval = kControllerPollInterval;
};

// Whether the core's controller answers, the bounded wait for it, and pinning the core's proxy
// ports. Nothing is logged here and no failure leaves: the callers decide what false means.
class ControllerReadiness {
 public:
  ControllerReadiness(net::HttpSession& session, controller::ControllerClient& controller,
                      base::Executors& executors, ReadinessTimings timings = {});

  // One GET of "/"; any HTTP answer (a 404 too) proves the core listens.
  void isControllerReady(std::function<void(bool)> completion);
  // Probes until an answer or until `budget` has passed on the wall clock; the final probe is
  // made before the deadline is tested, so a wait can overrun by one probe. A wait ends early,
  // with false, once `hopeless` holds (the core it waits for has exited).
  void waitForController(std::chrono::milliseconds budget, std::function<void(bool)> completion,
                         std::function<bool()> hopeless = {});
  // PUT /configs with the fixed HTTP and SOCKS ports; completes once, whatever the outcome.
  void ensureProxyPorts(std::function<void()> completion);

 private:
  void poll(std::chrono::system_clock::time_point deadline, std::function<void(bool)> completion,
            std::function<bool()> hopeless);

  net::HttpSession& session_;
  controller::ControllerClient& controller_;
  base::Executors& executors_;
  ReadinessTimings timings_;
};

}  // namespace qev::core
