#include "controller.h"

#include <sys/socket.h>
#include <unistd.h>

#include <httplib.h>

#include <cctype>
#include <cstdlib>

#include "go_json.h"
#include "sockets.h"

namespace fake_core {
namespace {

Reply jsonReply(int status, const nlohmann::json& value) {
  return Reply{status, "application/json", goJson(value), {}};
}

Reply messageReply(int status, const std::string& text) {
  return jsonReply(status, {{"message", text}});
}

Reply bodyInvalid() {
  return messageReply(400, "Body invalid");
}
Reply noContent() {
  return Reply{204, "", "", {}};
}
Reply methodNotAllowed() {
  return Reply{405, "", "", {}};
}
Reply notFound() {
  return Reply{404,
               "text/plain; charset=utf-8",
               "404 page not found\n",
               {{"X-Content-Type-Options", "nosniff"}}};
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Percent-decoding; `plusIsSpace` for query text. None when an escape is malformed.
std::optional<std::string> unescape(std::string_view text, bool plusIsSpace) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%') {
      if (i + 2 >= text.size()) return std::nullopt;
      const int high = hexValue(text[i + 1]);
      const int low = hexValue(text[i + 2]);
      if (high < 0 || low < 0) return std::nullopt;
      out.push_back(static_cast<char>(high * 16 + low));
      i += 2;
    } else if (c == '+' && plusIsSpace) {
      out.push_back(' ');
    } else {
      out.push_back(c);
    }
  }
  return out;
}

// The first value of `key` in a query string, as the core's URL parser reads it.
std::optional<std::string> queryValue(const std::string& query, const std::string& key) {
  std::size_t start = 0;
  while (start <= query.size()) {
    std::size_t end = query.find('&', start);
    if (end == std::string::npos) end = query.size();
    const std::string pair = query.substr(start, end - start);
    start = end + 1;
    if (pair.empty() || pair.find(';') != std::string::npos) continue;
    const std::size_t equals = pair.find('=');
    const auto name = unescape(pair.substr(0, equals), true);
    const auto value = unescape(equals == std::string::npos ? "" : pair.substr(equals + 1), true);
    if (!name || !value) continue;
    if (*name == key) return value;
  }
  return std::nullopt;
}

// A 16-bit signed decimal, as the delay test reads its `timeout`.
std::optional<int> parseInt16(const std::string& text) {
  std::size_t i = 0;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  if (i >= text.size()) return std::nullopt;
  long value = 0;
  for (; i < text.size(); ++i) {
    if (!std::isdigit(static_cast<unsigned char>(text[i]))) return std::nullopt;
    value = value * 10 + (text[i] - '0');
    if (value > 40000) return std::nullopt;
  }
  if (negative) value = -value;
  if (value < -32768 || value > 32767) return std::nullopt;
  return static_cast<int>(value);
}

std::vector<std::string> splitPath(const std::string& rawPath) {
  std::vector<std::string> segments;
  std::size_t start = rawPath.empty() || rawPath[0] != '/' ? 0 : 1;
  for (;;) {
    const std::size_t slash = rawPath.find('/', start);
    segments.push_back(
        rawPath.substr(start, slash == std::string::npos ? std::string::npos : slash - start));
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  return segments;
}

// A sub-router's own root: no further segment, or only a trailing slash.
bool atRoot(const std::vector<std::string>& rest) {
  return rest.empty() || (rest.size() == 1 && rest[0].empty());
}

// Reads a string field of a request body decoded as a Go struct: absent and null give "".
bool stringField(const nlohmann::json& body, const char* key, std::string& out) {
  const nlohmann::json* value = goField(body, key);
  if (value == nullptr || value->is_null()) return true;
  if (!value->is_string()) return false;
  out = value->get<std::string>();
  return true;
}

Reply preflight(const httplib::Request& request, const CoreRuntime& runtime) {
  Reply reply = noContent();
  reply.headers = {{"Vary", "Origin"},
                   {"Vary", "Access-Control-Request-Method"},
                   {"Vary", "Access-Control-Request-Headers"}};
  std::string method = request.get_header_value("Access-Control-Request-Method");
  for (char& c : method) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  const auto grant = runtime.corsGrant(request.get_header_value("Origin"));
  if (!grant || (method != "GET" && method != "POST" && method != "PUT" && method != "PATCH" &&
                 method != "DELETE")) {
    return reply;
  }
  reply.headers.emplace_back("Access-Control-Allow-Origin", *grant);
  reply.headers.emplace_back("Access-Control-Allow-Methods", "GET, POST, PUT, PATCH, DELETE");
  reply.headers.emplace_back("Access-Control-Allow-Headers", "Content-Type, Authorization");
  if (runtime.corsPrivateNetwork() &&
      request.get_header_value("Access-Control-Request-Private-Network") == "true") {
    reply.headers.emplace_back("Access-Control-Allow-Private-Network", "true");
  }
  reply.headers.emplace_back("Access-Control-Max-Age", "300");
  return reply;
}

}  // namespace

Controller::Controller(CoreRuntime& runtime, const Knobs& knobs, CoreLog& log,
                       JsonLinesFile& requestLog, ConnectionTable& connections)
    : runtime_(runtime),
      knobs_(knobs),
      log_(log),
      requestLog_(requestLog),
      connections_(connections),
      server_(std::make_unique<httplib::Server>()) {}

Controller::~Controller() {
  {
    std::lock_guard lock(hangMutex_);
    stopping_ = true;
  }
  hangReleased_.notify_all();
  server_->stop();
  if (thread_.joinable()) thread_.join();
}

bool Controller::start(const std::string& address) {
  const std::size_t colon = address.rfind(':');
  std::string host;
  int port = -1;
  if (colon != std::string::npos) {
    host = address.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
      host = host.substr(1, host.size() - 2);
    }
    const std::string portText = address.substr(colon + 1);
    char* end = nullptr;
    const long value = std::strtol(portText.c_str(), &end, 10);
    if (!portText.empty() && end != nullptr && *end == '\0') port = static_cast<int>(value);
  }
  if (port < 0) {
    log_.error("External controller listen error: listen tcp: address " + address +
               ": missing port in address");
    return false;
  }
  if (host.empty()) host = "0.0.0.0";

  const auto handler = [this](const httplib::Request& request, httplib::Response& response) {
    serve(request, request.body, response);
  };
  // Methods with a body read it themselves, so that a request without Content-Length reaches
  // the routes with an empty body instead of being refused by the HTTP library.
  const auto readingHandler = [this](const httplib::Request& request, httplib::Response& response,
                                     const httplib::ContentReader& reader) {
    std::string body;
    if (!reader([&body](const char* data, std::size_t length) {
          body.append(data, length);
          return true;
        })) {
      body.clear();
    }
    serve(request, body, response);
  };
  server_->Get(".*", handler);
  server_->Options(".*", handler);
  server_->Post(".*", readingHandler);
  server_->Put(".*", readingHandler);
  server_->Patch(".*", readingHandler);
  server_->Delete(".*", readingHandler);
  server_->set_keep_alive_max_count(1000);
  // Only SO_REUSEADDR, as the core's runtime sets it: a port in use must be refused.
  server_->set_socket_options([](int fd) {
    int yes = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  if (!server_->bind_to_port(host, port)) {
    std::string error;
    const int probe = listenTcp(host, port, error);
    if (probe >= 0) {
      ::close(probe);
      error = "listen tcp " + joinHostPort(host, port) + ": bind: address already in use";
    }
    log_.error("External controller listen error: " + error);
    return false;
  }
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  log_.info("RESTful API listening at: " + joinHostPort(host, port));
  return true;
}

void Controller::serve(const httplib::Request& request, const std::string& body,
                       httplib::Response& response) {
  requestLog_.append({{"method", request.method}, {"path", request.target}, {"body", body}});
  if (knobs_.hangController) {
    std::unique_lock lock(hangMutex_);
    hangReleased_.wait(lock, [this] { return stopping_; });
    return;
  }
  if (serveStream(request, response)) return;
  Reply reply = route(request, body);
  if (request.has_header("Origin") && request.method != "OPTIONS") {
    if (const auto grant = runtime_.corsGrant(request.get_header_value("Origin"))) {
      reply.headers.emplace_back("Access-Control-Allow-Origin", *grant);
      reply.headers.emplace_back("Vary", "Origin");
    }
  }
  response.status = reply.status;
  for (const auto& [name, value] : reply.headers) response.headers.emplace(name, value);
  if (!reply.contentType.empty()) response.set_content(reply.body, reply.contentType.c_str());
}

bool Controller::authorised(const httplib::Request& request) const {
  const std::string secret = runtime_.secret();
  if (secret.empty()) return true;
  const std::string header = request.get_header_value("Authorization");
  const std::size_t blank = header.find(' ');
  if (blank == std::string::npos) return false;
  return header.substr(0, blank) == "Bearer" && header.substr(blank + 1) == secret;
}

Reply Controller::route(const httplib::Request& request, const std::string& body) {
  const std::string& target = request.target;
  const std::size_t question = target.find('?');
  const std::string rawPath = target.substr(0, question);
  const std::string query = question == std::string::npos ? "" : target.substr(question + 1);
  const std::string& method = request.method;

  if (method == "OPTIONS" && request.has_header("Origin") &&
      request.has_header("Access-Control-Request-Method")) {
    return preflight(request, runtime_);
  }
  const std::vector<std::string> segments = splitPath(rawPath);
  const std::string& first = segments.front();
  const std::vector<std::string> rest(segments.begin() + 1, segments.end());
  const Reply unauthorised = messageReply(401, "Unauthorized");

  // Plain routes: a wrong method is refused before the secret is checked.
  if (segments.size() == 1 && (first.empty() || first == "version")) {
    if (method != "GET") return methodNotAllowed();
    if (!authorised(request)) return unauthorised;
    if (first.empty()) return jsonReply(200, {{"hello", "mihomo"}});
    return jsonReply(200, {{"meta", true}, {"version", "v1.19.0"}});
  }
  // Mounted routers: the secret is checked first.
  if (first == "configs" || first == "proxies" || first == "connections" || first == "group") {
    if (!authorised(request)) return unauthorised;
    if (first == "configs") return routeConfigs(request, body, rest, query);
    if (first == "proxies") return routeProxies(request, body, rest, query);
    if (first == "group") return routeGroups(request, rest, query);
    return routeConnections(request, rest);
  }
  return notFound();
}

Reply Controller::routeConfigs(const httplib::Request& request, const std::string& body,
                               const std::vector<std::string>& rest, const std::string& query) {
  if (!atRoot(rest)) return notFound();
  const std::string& method = request.method;
  if (method == "GET") return Reply{200, "application/json", goJson(runtime_.general()), {}};
  if (method == "PATCH") {
    const auto value = decodeFirstJsonValue(body);
    if (!value || !runtime_.patch(*value)) return bodyInvalid();
    return noContent();
  }
  if (method != "PUT") return methodNotAllowed();
  const auto value = decodeFirstJsonValue(body);
  if (!value || !(value->is_object() || value->is_null())) return bodyInvalid();
  std::string path;
  std::string payload;
  if (!stringField(*value, "path", path) || !stringField(*value, "payload", payload)) {
    return bodyInvalid();
  }
  const bool force = queryValue(query, "force").value_or("") == "true";
  std::optional<std::string> error;
  if (!payload.empty()) {
    error = runtime_.reloadText(payload, force);
  } else {
    if (!path.empty() && path.front() != '/')
      return messageReply(400, "path is not a absolute path");
    error = runtime_.reloadFile(path, force, "reload");
  }
  if (error) return messageReply(400, *error);
  return noContent();
}

Reply Controller::routeProxies(const httplib::Request& request, const std::string& body,
                               const std::vector<std::string>& rest, const std::string& query) {
  const std::string& method = request.method;
  if (atRoot(rest)) {
    if (method != "GET") return methodNotAllowed();
    return jsonReply(200, {{"proxies", runtime_.proxies()}});
  }
  if (rest[0].empty()) return notFound();
  const std::string name = unescape(rest[0], false).value_or(rest[0]);
  if (!runtime_.hasProxy(name)) return messageReply(404, "Resource not found");
  const std::vector<std::string> below(rest.begin() + 1, rest.end());

  if (atRoot(below)) {
    if (method == "GET") {
      const auto entry = runtime_.proxy(name);
      if (!entry) return messageReply(404, "Resource not found");
      return jsonReply(200, *entry);
    }
    if (method == "PUT") {
      const auto value = decodeFirstJsonValue(body);
      if (!value || !(value->is_object() || value->is_null())) return bodyInvalid();
      std::string member;
      if (!stringField(*value, "name", member)) return bodyInvalid();
      switch (runtime_.select(name, member)) {
        case ProxyTable::SelectResult::kSelected:
          return noContent();
        case ProxyTable::SelectResult::kNotFound:
          return messageReply(404, "Resource not found");
        case ProxyTable::SelectResult::kNotSelectable:
          return messageReply(400, "Must be a Selector");
        case ProxyTable::SelectResult::kNoSuchMember:
          return messageReply(400, "Selector update error: proxy not exist");
      }
    }
    if (method == "DELETE") {
      if (!runtime_.unpin(name)) return bodyInvalid();
      return noContent();
    }
    return methodNotAllowed();
  }
  if (below.size() == 1 && below[0] == "delay") {
    if (method != "GET") return methodNotAllowed();
    const auto timeout = parseInt16(queryValue(query, "timeout").value_or(""));
    if (!timeout) return bodyInvalid();
    const auto answer = runtime_.delayTest(name, *timeout, queryValue(query, "url").value_or(""));
    if (answer.status == 504) return messageReply(504, "Timeout");
    if (answer.status == 503) return messageReply(503, "An error occurred in the delay test");
    return jsonReply(200, {{"delay", answer.delay}});
  }
  return notFound();
}

Reply Controller::routeConnections(const httplib::Request& request,
                                   const std::vector<std::string>& rest) {
  const std::string& method = request.method;
  if (atRoot(rest)) {
    if (method == "DELETE") {
      connections_.closeAll();
      return noContent();
    }
    if (method == "GET") return jsonReply(200, connections_.snapshot());
    return methodNotAllowed();
  }
  if (rest.size() == 1) {
    if (method != "DELETE") return methodNotAllowed();
    connections_.close(unescape(rest[0], false).value_or(rest[0]));
    return noContent();  // an unknown id too
  }
  return notFound();
}

Reply Controller::routeGroups(const httplib::Request& request, const std::vector<std::string>& rest,
                              const std::string& query) {
  if (request.method != "GET") return methodNotAllowed();
  if (atRoot(rest)) {
    nlohmann::json groups = nlohmann::json::array();
    // Held by name: items() of a temporary would outlive the table it walks.
    const nlohmann::json proxies = runtime_.proxies();
    for (const auto& [name, entry] : proxies.items()) {
      if (entry.contains("all")) groups.push_back(entry);
    }
    return jsonReply(200, {{"proxies", groups}});
  }
  if (rest.size() != 2 || rest[1] != "delay") return notFound();
  const std::string name = unescape(rest[0], false).value_or(rest[0]);
  const auto timeout = parseInt16(queryValue(query, "timeout").value_or(""));
  if (!timeout) return bodyInvalid();
  const auto answered =
      runtime_.groupDelayTest(name, *timeout, queryValue(query, "url").value_or(""));
  if (!answered) return messageReply(404, "Resource not found");
  if (answered->empty()) return messageReply(504, "get delay: all proxies timeout");
  return jsonReply(200, *answered);
}

bool Controller::serveStream(const httplib::Request& request, httplib::Response& response) {
  const std::string& target = request.target;
  const std::size_t question = target.find('?');
  const std::string path = target.substr(0, question);
  if (request.method != "GET" || (path != "/traffic" && path != "/logs")) return false;
  const auto refuse = [&response](int status, const std::string& message) {
    response.status = status;
    response.set_content(nlohmann::json{{"message", message}}.dump() + "\n", "application/json");
    return true;
  };
  if (!authorised(request)) return refuse(401, "Unauthorized");
  response.status = 200;
  if (path == "/traffic") {
    // One sample a second of what passed through the inbound ports meanwhile.
    response.set_chunked_content_provider(
        "application/json",
        [this, last = connections_.totals()](std::size_t, httplib::DataSink& sink) mutable {
          std::this_thread::sleep_for(std::chrono::seconds(1));
          const auto now = connections_.totals();
          const std::string line =
              nlohmann::json{{"up", now.first - last.first}, {"down", now.second - last.second}}
                  .dump() +
              "\n";
          last = now;
          return sink.write(line.data(), line.size());
        });
    return true;
  }
  const std::string query = question == std::string::npos ? "" : target.substr(question + 1);
  const auto level = logLevelFromName(queryValue(query, "level").value_or("info"));
  if (!level) return refuse(400, "Body invalid");
  auto subscription = log_.subscribe(*level);
  response.set_chunked_content_provider(
      "application/json",
      [subscription](std::size_t, httplib::DataSink& sink) {
        const auto line = subscription->take(std::chrono::seconds(1));
        if (!line) return sink.is_writable();
        return sink.write(line->data(), line->size());
      },
      [this, subscription](bool) { log_.unsubscribe(subscription); });
  return true;
}

}  // namespace fake_core
