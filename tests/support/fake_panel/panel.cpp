#include "panel.h"

#include <httplib.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <map>
#include <thread>

#include "php_json.h"

namespace fake_panel {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kLoggedOut = "未登录或登陆已过期";

std::string lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool isV2(const PanelSettings& settings) {
  return settings.generation == Generation::kV2;
}

// The panel's traffic wording: "97.66 GB", with PHP's short float printing.
std::string trafficText(long long bytes) {
  const auto format = [](double value, const char* unit) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.2f", std::round(value * 100) / 100);
    std::string text = buffer;
    while (text.back() == '0') text.pop_back();
    if (text.back() == '.') text.pop_back();
    return text + " " + unit;
  };
  if (bytes > 1073741824) return format(bytes / 1073741824.0, "GB");
  if (bytes > 1048576) return format(bytes / 1048576.0, "MB");
  if (bytes > 1024) return format(bytes / 1024.0, "KB");
  if (bytes < 0) return "0";
  return format(static_cast<double>(bytes), "B");
}

// "Y-m-d" in the panel's time zone (UTC+8).
std::string dateText(long long unixSeconds) {
  const time_t shifted = static_cast<time_t>(unixSeconds + 8 * 3600);
  struct tm parts {};
  gmtime_r(&shifted, &parts);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%d", &parts);
  return buffer;
}

std::map<std::string, std::string> parseForm(const std::string& body) {
  std::map<std::string, std::string> fields;
  httplib::Params params;
  httplib::detail::parse_query_text(body, params);
  for (const auto& [key, value] : params) fields[key] = value;
  return fields;
}

// The request's input as the panel's framework merges it: query, then the JSON or form body.
std::map<std::string, Json> inputOf(const httplib::Request& request) {
  std::map<std::string, Json> input;
  for (const auto& [key, value] : request.params) input[key] = value;
  const std::string type = lower(request.get_header_value("Content-Type"));
  if (type.find("/json") != std::string::npos || type.find("+json") != std::string::npos) {
    const Json body = Json::parse(request.body, nullptr, false);
    if (body.is_object()) {
      for (auto it = body.begin(); it != body.end(); ++it) input[it.key()] = it.value();
    }
  } else {
    for (const auto& [key, value] : parseForm(request.body)) input[key] = value;
  }
  return input;
}

std::string inputText(const std::map<std::string, Json>& input, const std::string& key) {
  const auto it = input.find(key);
  if (it == input.end() || it->second.is_null()) return "";
  if (it->second.is_string()) return it->second.get<std::string>();
  return it->second.dump();
}

std::size_t characterCount(const std::string& text) {
  std::size_t count = 0;
  for (unsigned char c : text) count += (c & 0xC0) != 0x80;
  return count;
}

bool plausibleEmail(const std::string& email) {
  const auto at = email.find('@');
  if (at == std::string::npos || at == 0 || email.find('@', at + 1) != std::string::npos)
    return false;
  const std::string domain = email.substr(at + 1);
  const auto dot = domain.find('.');
  return dot != std::string::npos && dot > 0 && dot + 1 < domain.size() &&
         email.find(' ') == std::string::npos;
}

}  // namespace

Panel::Panel(PanelSettings settings)
    : settings_(std::move(settings)), random_(std::random_device{}()) {}

std::string Panel::randomText(std::size_t length, const char* alphabet) {
  const std::string letters = alphabet;
  std::uniform_int_distribution<std::size_t> pick(0, letters.size() - 1);
  std::string out;
  for (std::size_t i = 0; i < length; ++i) out.push_back(letters[pick(random_)]);
  return out;
}

Json Panel::settingsJson() const {
  const PanelSettings& s = settings_;
  return {{"generation", isV2(s) ? "v2" : "v1"},
          {"delay_ms", s.delayMs},
          {"unusable", s.unusable},
          {"banned", s.banned},
          {"rate_limited", s.rateLimited},
          {"info_nodes", s.infoNodes},
          {"geo_rules", s.geoRules},
          {"reset_day", s.resetDay ? Json(*s.resetDay) : Json()},
          {"expired_at", s.expiredAt ? Json(*s.expiredAt) : Json()},
          {"site_name", s.siteName},
          {"subscribe_base", s.subscribeBase},
          {"macos_version", s.macosVersion ? Json(*s.macosVersion) : Json()},
          {"sessions", sessions_.size()}};
}

void Panel::record(const httplib::Request& request) {
  // From the target itself: the parsed parameters also hold the fields of a form body.
  Json query = Json::object();
  const auto question = request.target.find('?');
  if (question != std::string::npos) {
    httplib::Params params;
    httplib::detail::parse_query_text(request.target.substr(question + 1), params);
    for (const auto& [key, value] : params) {
      if (!query.contains(key)) query[key] = value;
    }
  }
  Json headers = Json::object();
  for (const auto& [name, value] : request.headers) {
    const std::string key = lower(name);
    if (key == "remote_addr" || key == "remote_port" || key == "local_addr" ||
        key == "local_port") {
      continue;
    }
    headers[key] = headers.contains(key) ? headers[key].get<std::string>() + ", " + value : value;
  }
  const std::string body = Json(request.body).dump(-1, ' ', false, Json::error_handler_t::replace);
  std::lock_guard lock(mutex_);
  requests_.push_back({{"method", request.method},
                       {"path", request.path},
                       {"query", query},
                       {"headers", headers},
                       {"body", Json::parse(body)}});
}

void Panel::install(httplib::Server& server) {
  const auto handler = [this](const httplib::Request& request, httplib::Response& response) {
    Answer answer;
    if (request.path.rfind("/__", 0) == 0) {
      answer = control(request);
    } else {
      record(request);
      PanelSettings settings;
      {
        std::lock_guard lock(mutex_);
        settings = settings_;
      }
      if (settings.delayMs > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(settings.delayMs));
      answer = handle(request, settings);
    }
    response.status = answer.status;
    for (const auto& [name, value] : answer.headers) response.headers.emplace(name, value);
    if (!answer.contentType.empty()) response.set_content(answer.body, answer.contentType.c_str());
  };
  server.Get(".*", handler);
  server.Post(".*", handler);
  server.Put(".*", handler);
  server.Patch(".*", handler);
  server.Delete(".*", handler);
  server.Options(".*", handler);
}

Panel::Answer Panel::control(const httplib::Request& request) {
  const auto reply = [](int status, const Json& value) {
    return Answer{status, "application/json", value.dump(), {}};
  };
  if (request.path == "/__requests") {
    std::lock_guard lock(mutex_);
    if (request.method == "GET") return reply(200, requests_);
    if (request.method == "DELETE") {
      requests_ = Json::array();
      return Answer{204, "", "", {}};
    }
    return reply(405, {{"error", "GET or DELETE"}});
  }
  if (request.path != "/__control") return reply(404, {{"error", "unknown test endpoint"}});
  std::lock_guard lock(mutex_);
  if (request.method == "GET") return reply(200, settingsJson());
  if (request.method != "POST") return reply(405, {{"error", "GET or POST"}});
  const Json changes = Json::parse(request.body, nullptr, false);
  if (!changes.is_object()) return reply(400, {{"error", "the body must be a JSON object"}});
  PanelSettings next = settings_;
  bool logoutAll = false;
  for (auto it = changes.begin(); it != changes.end(); ++it) {
    const std::string& key = it.key();
    const Json& value = it.value();
    const auto bad = [&] { return reply(400, {{"error", "bad value for " + key}}); };
    if (key == "generation") {
      if (value == "v1") {
        next.generation = Generation::kV1;
      } else if (value == "v2") {
        next.generation = Generation::kV2;
      } else {
        return bad();
      }
    } else if (key == "delay_ms") {
      if (!value.is_number_integer() || value.get<long long>() < 0) return bad();
      next.delayMs = value.get<int>();
    } else if (key == "unusable" || key == "banned" || key == "rate_limited" ||
               key == "info_nodes" || key == "geo_rules" || key == "logout_all") {
      if (!value.is_boolean()) return bad();
      const bool flag = value.get<bool>();
      if (key == "unusable") next.unusable = flag;
      if (key == "banned") next.banned = flag;
      if (key == "rate_limited") next.rateLimited = flag;
      if (key == "info_nodes") next.infoNodes = flag;
      if (key == "geo_rules") next.geoRules = flag;
      if (key == "logout_all") logoutAll = flag;
    } else if (key == "reset_day") {
      if (!value.is_null() && !value.is_number_integer()) return bad();
      next.resetDay = value.is_null() ? std::nullopt : std::optional<int>(value.get<int>());
    } else if (key == "expired_at") {
      if (!value.is_null() && !value.is_number_integer()) return bad();
      next.expiredAt =
          value.is_null() ? std::nullopt : std::optional<long long>(value.get<long long>());
    } else if (key == "site_name" || key == "subscribe_base") {
      if (!value.is_string()) return bad();
      (key == "site_name" ? next.siteName : next.subscribeBase) = value.get<std::string>();
    } else if (key == "macos_version") {
      if (!value.is_null() && !value.is_string()) return bad();
      next.macosVersion =
          value.is_null() ? std::nullopt : std::optional<std::string>(value.get<std::string>());
    } else if (key == "subscription_body") {
      // A string, or an array of byte values for bodies that are not text; null: generated.
      if (value.is_null()) {
        next.subscriptionBody.reset();
      } else if (value.is_string()) {
        next.subscriptionBody = value.get<std::string>();
      } else if (value.is_array()) {
        std::string bytes;
        for (const auto& byte : value) {
          if (!byte.is_number_integer()) return bad();
          bytes.push_back(static_cast<char>(byte.get<int>()));
        }
        next.subscriptionBody = bytes;
      } else {
        return bad();
      }
    } else {
      return reply(400, {{"error", "unknown setting " + key}});
    }
  }
  settings_ = next;
  if (logoutAll) sessions_.clear();
  return reply(200, settingsJson());
}

Panel::Answer Panel::handle(const httplib::Request& request, const PanelSettings& settings) {
  const auto success = [&](const Json& data) {
    const Json body = isV2(settings) ? Json{{"status", "success"},
                                            {"message", "操作成功"},
                                            {"data", data},
                                            {"error", nullptr}}
                                     : Json{{"data", data}};
    return Answer{200, "application/json", phpJson(body), {}};
  };
  const auto failure = [&](int v1Status, int v2Status, const std::string& message) {
    if (isV2(settings)) {
      const Json body = {
          {"status", "fail"}, {"message", message}, {"data", nullptr}, {"error", nullptr}};
      return Answer{v2Status, "application/json", phpJson(body), {}};
    }
    return Answer{v1Status, "application/json", phpJson(Json{{"message", message}}), {}};
  };
  const std::string& path = request.path;
  const std::string& method = request.method;
  const auto only = [&](const char* wanted) { return method == wanted; };
  const auto methodRefused = [&](const char* allowed) {
    return failure(405, 405,
                   "The " + method +
                       " method is not supported for this route. Supported methods: " + allowed +
                       ".");
  };

  if (path == "/api/v1/passport/auth/login") {
    return only("POST") ? login(request, settings) : methodRefused("POST");
  }
  if (path == "/api/v1/client/subscribe") {
    return only("GET") ? subscribe(request, settings, "") : methodRefused("GET, HEAD");
  }
  if (isV2(settings) && path.rfind("/s/", 0) == 0 && path.size() > 3 &&
      path.find('/', 3) == std::string::npos) {
    return only("GET") ? subscribe(request, settings, path.substr(3)) : methodRefused("GET, HEAD");
  }
  if (path == "/api/v1/guest/comm/config") {
    if (!only("GET")) return methodRefused("GET, HEAD");
    return success(Json{{"tos_url", nullptr},
                        {"is_email_verify", 0},
                        {"is_invite_force", 0},
                        {"email_whitelist_suffix", 0},
                        {"is_recaptcha", 0},
                        {"recaptcha_site_key", nullptr},
                        {"app_description", settings.siteName + " — fast and stable"},
                        {"app_url", "https://panel.qev.test"},
                        {"logo", nullptr}});
  }
  if (path == "/api/v1/client/app/getVersion") {
    if (!only("GET")) return methodRefused("GET, HEAD");
    const std::string token = request.get_param_value("token");
    if (token.empty()) return failure(403, 403, "token is null");
    if (token != DemoAccount::kToken) return failure(403, 403, "token is error");
    const Json mac = settings.macosVersion ? Json(*settings.macosVersion) : Json();
    const Json macUrl =
        settings.macosVersion
            ? Json("https://panel.qev.test/downloads/qev-" + *settings.macosVersion + ".dmg")
            : Json();
    return success(Json{{"windows_version", nullptr},
                        {"windows_download_url", nullptr},
                        {"macos_version", mac},
                        {"macos_download_url", macUrl},
                        {"android_version", nullptr},
                        {"android_download_url", nullptr}});
  }
  static const std::set<std::string> userRoutes = {"getSubscribe", "info", "checkLogin", "logout"};
  const std::string userPrefix = "/api/v1/user/";
  if (path.rfind(userPrefix, 0) == 0 && userRoutes.count(path.substr(userPrefix.size()))) {
    if (!only("GET")) return methodRefused("GET, HEAD");
    if (!loggedIn(request, settings)) return failure(403, 403, kLoggedOut);
    return user(path.substr(userPrefix.size()), request, settings);
  }
  return Answer{404, "text/html; charset=UTF-8", "Not Found", {}};
}

Panel::Answer Panel::login(const httplib::Request& request, const PanelSettings& settings) {
  const auto input = inputOf(request);
  const std::string email = inputText(input, "email");
  const std::string password = inputText(input, "password");
  Json errors = Json::object();
  std::string first;
  const auto invalid = [&](const char* field, const char* text) {
    if (first.empty()) first = text;
    errors[field] = Json::array({text});
  };
  if (email.empty()) {
    invalid("email", "邮箱不能为空");
  } else if (!plausibleEmail(email)) {
    invalid("email", "邮箱格式不正确");
  }
  if (password.empty()) {
    invalid("password", "密码不能为空");
  } else if (characterCount(password) < 8) {
    invalid("password", "密码必须大于8位数");
  }
  if (!first.empty()) {
    return Answer{
        422, "application/json", phpJson(Json{{"message", first}, {"errors", errors}}), {}};
  }
  const auto refuse = [&](int v2Status, const std::string& message) {
    if (isV2(settings)) {
      const Json body = {
          {"status", "fail"}, {"message", message}, {"data", nullptr}, {"error", nullptr}};
      return Answer{v2Status, "application/json", phpJson(body), {}};
    }
    return Answer{500, "application/json", phpJson(Json{{"message", message}}), {}};
  };
  if (settings.rateLimited) return refuse(429, "密码错误次数过多，请 60 分钟后再试");
  if (lower(email) != DemoAccount::kEmail || password != DemoAccount::kPassword) {
    return refuse(400, "邮箱或密码错误");
  }
  if (settings.banned) return refuse(400, "该账户已被停止使用");

  std::lock_guard lock(mutex_);
  if (isV2(settings)) {
    const std::string token =
        randomText(40, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789");
    sessions_.insert(token);
    const Json body = {
        {"status", "success"},
        {"message", "操作成功"},
        {"data",
         {{"token", DemoAccount::kToken}, {"auth_data", "Bearer " + token}, {"is_admin", false}}},
        {"error", nullptr}};
    return Answer{200, "application/json", phpJson(body), {}};
  }
  const std::string payload =
      "{\"id\":1,\"session\":\"" + randomText(32, "0123456789abcdef") + "\"}";
  std::string jwt = "eyJ0eXAiOiJKV1QiLCJhbGciOiJIUzI1NiJ9." + base64(payload) + "." +
                    base64(randomText(32, "0123456789abcdef"));
  // JWTs use the URL-safe alphabet without padding.
  std::string urlSafe;
  for (char c : jwt) {
    if (c == '=') continue;
    urlSafe.push_back(c == '+' ? '-' : c == '/' ? '_' : c);
  }
  sessions_.insert(urlSafe);
  const Json body = {
      {"data", {{"token", DemoAccount::kToken}, {"is_admin", 0}, {"auth_data", urlSafe}}}};
  return Answer{200, "application/json", phpJson(body), {}};
}

bool Panel::loggedIn(const httplib::Request& request, const PanelSettings& settings) {
  std::string credential;
  if (isV2(settings)) {
    const std::string header = request.get_header_value("Authorization");
    const std::string lowered = lower(header);
    const auto position = lowered.rfind("bearer ");
    if (position == std::string::npos) return false;
    credential = header.substr(position + 7);
    if (const auto comma = credential.find(','); comma != std::string::npos) {
      credential = credential.substr(0, comma);
    }
  } else {
    credential = inputText(inputOf(request), "auth_data");
    if (credential.empty()) credential = request.get_header_value("Authorization");
  }
  std::lock_guard lock(mutex_);
  return !credential.empty() && sessions_.count(credential) > 0;
}

Panel::Answer Panel::user(const std::string& what, const httplib::Request& request,
                          const PanelSettings& settings) {
  const auto success = [&](const Json& data) {
    const Json body = isV2(settings) ? Json{{"status", "success"},
                                            {"message", "操作成功"},
                                            {"data", data},
                                            {"error", nullptr}}
                                     : Json{{"data", data}};
    return Answer{200, "application/json", phpJson(body), {}};
  };
  const Json expiredAt = settings.expiredAt ? Json(*settings.expiredAt) : Json();
  if (what == "checkLogin") return success(Json{{"is_login", true}});
  if (what == "logout") {
    std::lock_guard lock(mutex_);
    sessions_.clear();
    return success(true);
  }
  if (what == "info") {
    return success(
        Json{{"email", DemoAccount::kEmail},
             {"transfer_enable", DemoAccount::kTransferEnable},
             {"last_login_at", 1764547200},
             {"created_at", 1704038400},
             {"banned", isV2(settings) ? Json(false) : Json(0)},
             {"remind_expire", isV2(settings) ? Json(true) : Json(1)},
             {"remind_traffic", isV2(settings) ? Json(true) : Json(1)},
             {"expired_at", expiredAt},
             {"balance", 0},
             {"commission_balance", 1250},
             {"plan_id", 1},
             {"discount", nullptr},
             {"commission_rate", nullptr},
             {"telegram_id", nullptr},
             {"uuid", DemoAccount::kUuid},
             {"avatar_url",
              "https://cravatar.cn/avatar/0f1e2d3c4b5a69788796a5b4c3d2e1f0?s=64&d=identicon"}});
  }
  // getSubscribe
  std::string base = settings.subscribeBase;
  if (base.empty()) {
    const std::string host = request.get_header_value("Host");
    base = "http://" + (host.empty() ? std::string("127.0.0.1") : host);
  }
  const std::string url = isV2(settings)
                              ? base + "/s/" + DemoAccount::kToken
                              : base + "/api/v1/client/subscribe?token=" + DemoAccount::kToken;
  Json data = {{"plan_id", 1},
               {"token", DemoAccount::kToken},
               {"expired_at", expiredAt},
               {"u", DemoAccount::kUpload},
               {"d", DemoAccount::kDownload},
               {"transfer_enable", DemoAccount::kTransferEnable},
               {"email", DemoAccount::kEmail},
               {"uuid", DemoAccount::kUuid},
               {"plan",
                {{"id", 1},
                 {"name", "标准套餐"},
                 {"transfer_enable", 100},
                 {"speed_limit", nullptr},
                 {"month_price", 1500}}},
               {"subscribe_url", url},
               {"reset_day", settings.resetDay ? Json(*settings.resetDay) : Json()}};
  if (isV2(settings)) {
    data["device_limit"] = 3;
    data["speed_limit"] = nullptr;
    data["next_reset_at"] = settings.resetDay ? Json(1767225600) : Json();
  }
  return success(data);
}

Panel::Answer Panel::subscribe(const httplib::Request& request, const PanelSettings& settings,
                               const std::string& pathToken) {
  std::string token = request.get_param_value("token");
  if (token.empty()) token = pathToken;
  const auto failure = [&](const std::string& message) {
    if (isV2(settings)) {
      const Json body = {
          {"status", "fail"}, {"message", message}, {"data", nullptr}, {"error", nullptr}};
      return Answer{403, "application/json", phpJson(body), {}};
    }
    return Answer{403, "application/json", phpJson(Json{{"message", message}}), {}};
  };
  if (token.empty()) return failure("token is null");
  if (token != DemoAccount::kToken) return failure("token is error");
  if (settings.unusable) {
    if (isV2(settings)) return Answer{403, "text/plain", "", {}};
    return Answer{200, "text/html; charset=UTF-8", "", {}};
  }

  SubscriptionSource source;
  source.generation = settings.generation;
  source.siteName = settings.siteName;
  std::string host = request.get_header_value("Host");
  if (const auto colon = host.rfind(':'); colon != std::string::npos) host = host.substr(0, colon);
  source.panelHost = host.empty() ? "127.0.0.1" : host;
  source.infoNodes = settings.infoNodes;
  source.remaining =
      trafficText(DemoAccount::kTransferEnable - DemoAccount::kUpload - DemoAccount::kDownload);
  source.resetDays = settings.resetDay ? std::optional<int>(settings.resetDay) : std::nullopt;
  source.expiry = settings.expiredAt ? dateText(*settings.expiredAt) : "长期有效";
  source.geoRules = settings.geoRules;

  std::string flag = request.get_param_value("flag");
  if (flag.empty()) flag = request.get_header_value("User-Agent");
  flag = lower(flag);
  std::string body;
  const bool yaml =
      flag.find("meta") != std::string::npos || flag.find("clash") != std::string::npos;
  if (flag.find("meta") != std::string::npos) {
    body = metaSubscription(source);
  } else if (flag.find("clash") != std::string::npos) {
    body = classicSubscription(source);
  } else {
    body = shareLinkSubscription(source);
  }
  Answer answer;
  answer.status = 200;
  answer.contentType = isV2(settings) ? (yaml ? "text/yaml" : "text/plain; charset=UTF-8")
                                      : "text/html; charset=UTF-8";
  answer.body = settings.subscriptionBody.value_or(body);
  const std::string expire = settings.expiredAt ? std::to_string(*settings.expiredAt) : "";
  answer.headers = {
      {"subscription-userinfo", "upload=" + std::to_string(DemoAccount::kUpload) +
                                    "; download=" + std::to_string(DemoAccount::kDownload) +
                                    "; total=" + std::to_string(DemoAccount::kTransferEnable) +
                                    "; expire=" + expire},
      {"profile-update-interval", "24"},
      {"content-disposition", "attachment;filename*=UTF-8''" + rawUrlEncode(settings.siteName)}};
  return answer;
}

}  // namespace fake_panel
