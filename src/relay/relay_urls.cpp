#include "relay/relay_urls.h"

#include "base/constants.h"
#include "qev/deployment.h"

namespace qev::relay {
namespace {

constexpr std::string_view kUsageReportPaths[] = {"/api/v1/guest/report/fake",
                                                  "/v1/guest/report/fake"};

bool needsEscapeInRequestTarget(unsigned char c) {
  if (c <= 0x20 || c >= 0x7f) return true;
  switch (c) {
    case '"':
    case '<':
    case '>':
    case '\\':
    case '^':
    case '`':
    case '{':
    case '|':
    case '}':
      return true;
    default:
      return false;
  }
}

void appendEscaped(std::string& out, unsigned char c) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  out.push_back('%');
  out.push_back(kHex[c >> 4]);
  out.push_back(kHex[c & 0x0f]);
}

}  // namespace

bool isLoopbackHost(std::string_view host) {
  return host == "127.0.0.1" || host == "localhost";
}

std::string rewriteLocalControllerURL(std::string_view url) {
  auto parsed = net::parseUrl(url);
  if (!parsed || !isLoopbackHost(parsed->host)) return std::string(url);
  if (parsed->path != "/proxies/" + std::string(kSelectorGroup)) return std::string(url);
  std::string path = "/proxies/";
  for (const char c : kProductGroup) {
    const auto byte = static_cast<unsigned char>(c);
    if (needsEscapeInRequestTarget(byte)) {
      appendEscaped(path, byte);
    } else {
      path.push_back(c);
    }
  }
  parsed->path = std::move(path);
  return parsed->toString();
}

bool isOSSConfigRequest(std::string_view url) {
  const auto parsed = net::parseUrl(url);
  if (!parsed) return false;
  return parsed->host.find("oss") != std::string::npos &&
         parsed->host.find(deployment::kOssHostLabel) != std::string::npos;
}

bool isUsageReportRequest(const net::Url& url, const net::Url& apiBase) {
  if (url.host.empty() || url.host != apiBase.host) return false;
  std::string_view basePath = apiBase.path;
  while (!basePath.empty() && basePath.back() == '/') basePath.remove_suffix(1);
  for (const std::string_view report : kUsageReportPaths) {
    if (url.path == report) return true;
    if (!basePath.empty() && url.path.size() == basePath.size() + report.size() &&
        url.path.starts_with(basePath) && url.path.ends_with(report)) {
      return true;
    }
  }
  return false;
}

std::string transportSafeURL(std::string_view url) {
  const auto schemeEnd = url.find("://");
  if (schemeEnd == std::string_view::npos) return std::string(url);
  const auto targetStart = url.find_first_of("/?#", schemeEnd + 3);
  if (targetStart == std::string_view::npos) return std::string(url);
  std::string out(url.substr(0, targetStart));
  out.reserve(url.size());
  for (const char c : url.substr(targetStart)) {
    const auto byte = static_cast<unsigned char>(c);
    if (needsEscapeInRequestTarget(byte)) {
      appendEscaped(out, byte);
    } else {
      out.push_back(c);
    }
  }
  return out;
}

}  // namespace qev::relay
