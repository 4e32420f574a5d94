#pragma once

#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "subscription.h"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace fake_panel {

// The demo account every panel serves.
struct DemoAccount {
  static constexpr const char* kEmail = "demo@qev.test";
  static constexpr const char* kPassword = "demo-password";
  static constexpr const char* kToken = "5f3c9a7e2b1d4c8f9a6e3b2d1c4f7a9e";  // subscription token
  static constexpr const char* kUuid = "9a1b2c3d-4e5f-4a6b-8c7d-0e1f2a3b4c5d";
  static constexpr long long kTransferEnable = 107374182400;  // 100 GiB
  static constexpr long long kUpload = 1288490189;            // 1.2 GiB
  static constexpr long long kDownload = 1224065679;          // 1.14 GiB
};

// What a test may change, by flag or through POST /__control.
struct PanelSettings {
  Generation generation = Generation::kV2;
  int delayMs = 0;           // every panel answer waits this long
  bool unusable = false;     // expired/exhausted account: v1 200 empty, v2 403 empty
  bool banned = false;       // login refused: "该账户已被停止使用"
  bool rateLimited = false;  // login refused: too many attempts
  bool infoNodes = true;
  bool geoRules = false;
  std::optional<int> resetDay = 12;
  std::optional<long long> expiredAt = 1798646400;  // 2026-12-31 in the panel's time zone
  std::string siteName = "星河云";
  std::string subscribeBase;  // empty: "http://" + the request's Host
  std::optional<std::string> macosVersion = std::string("5.2.0");
  // Served verbatim by the subscription route instead of the generated subscription.
  std::optional<std::string> subscriptionBody;
};

// The panel's HTTP API in either generation's shape (see /work/shared/panel-api.md), plus the
// test endpoints /__control and /__requests.
class Panel {
 public:
  explicit Panel(PanelSettings settings);
  void install(httplib::Server& server);

 private:
  struct Answer {
    int status = 200;
    std::string contentType;
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
  };

  Answer handle(const httplib::Request& request, const PanelSettings& settings);
  Answer control(const httplib::Request& request);
  Answer login(const httplib::Request& request, const PanelSettings& settings);
  Answer subscribe(const httplib::Request& request, const PanelSettings& settings,
                   const std::string& pathToken);
  Answer user(const std::string& what, const httplib::Request& request,
              const PanelSettings& settings);
  bool loggedIn(const httplib::Request& request, const PanelSettings& settings);
  nlohmann::ordered_json settingsJson() const;
  void record(const httplib::Request& request);
  std::string randomText(std::size_t length, const char* alphabet);

  mutable std::mutex mutex_;
  PanelSettings settings_;
  std::set<std::string> sessions_;  // issued credentials (v1 JWTs, v2 bearer tokens)
  std::mt19937_64 random_;
  nlohmann::ordered_json requests_ = nlohmann::ordered_json::array();
};

}  // namespace fake_panel
