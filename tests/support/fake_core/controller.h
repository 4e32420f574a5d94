#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "connections.h"
#include "core_log.h"
#include "json_lines.h"
#include "knobs.h"
#include "runtime.h"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace fake_core {

// One controller reply before it is written out.
struct Reply {
  int status = 200;
  std::string contentType;  // empty: no body and no content type
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
};

// The core's HTTP controller: routes, status codes, bodies, authorisation and CORS as the
// real controller answers them (see /work/shared/core-controller.md for what is mirrored).
class Controller {
 public:
  Controller(CoreRuntime& runtime, const Knobs& knobs, CoreLog& log, JsonLinesFile& requestLog,
             ConnectionTable& connections);
  ~Controller();
  Controller(const Controller&) = delete;
  Controller& operator=(const Controller&) = delete;

  // Listens on an external-controller address ("127.0.0.1:9090", ":9090", "[::1]:9090") and
  // serves in the background. When it cannot listen it logs the core's error line and returns
  // false; the core then runs on without a controller.
  bool start(const std::string& address);

 private:
  void serve(const httplib::Request& request, const std::string& body, httplib::Response& response);
  Reply route(const httplib::Request& request, const std::string& body);
  Reply routeConfigs(const httplib::Request& request, const std::string& body,
                     const std::vector<std::string>& rest, const std::string& query);
  Reply routeProxies(const httplib::Request& request, const std::string& body,
                     const std::vector<std::string>& rest, const std::string& query);
  Reply routeConnections(const httplib::Request& request, const std::vector<std::string>& rest);
  Reply routeGroups(const httplib::Request& request, const std::vector<std::string>& rest,
                    const std::string& query);
  // GET /traffic and /logs: JSON lines until the client goes. False when not a stream route.
  bool serveStream(const httplib::Request& request, httplib::Response& response);
  bool authorised(const httplib::Request& request) const;

  CoreRuntime& runtime_;
  const Knobs& knobs_;
  CoreLog& log_;
  JsonLinesFile& requestLog_;
  ConnectionTable& connections_;
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  std::mutex hangMutex_;
  std::condition_variable hangReleased_;
  bool stopping_ = false;
};

}  // namespace fake_core
