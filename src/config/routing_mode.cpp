#include "config/routing_mode.h"

#include <array>
#include <utility>

#include "base/strings.h"

namespace qev::config {
namespace {

using Label = std::pair<std::string_view, std::string_view>;

constexpr std::array<Label, 28> kModeLabels = {{
    {"全局", "global"},
    {"全局模式", "global"},
    {"全域", "global"},
    {"全域模式", "global"},
    {"global mode", "global"},
    {"グローバル", "global"},
    {"グローバルモード", "global"},
    {"글로벌", "global"},
    {"글로벌 모드", "global"},
    {"规则", "rule"},
    {"规则模式", "rule"},
    {"規則", "rule"},
    {"規則模式", "rule"},
    {"rule mode", "rule"},
    {"rules", "rule"},
    {"ルール", "rule"},
    {"ルールモード", "rule"},
    {"규칙", "rule"},
    {"규칙 모드", "rule"},
    {"直连", "direct"},
    {"直连模式", "direct"},
    {"直連", "direct"},
    {"直連模式", "direct"},
    {"direct mode", "direct"},
    {"ダイレクト", "direct"},
    {"ダイレクトモード", "direct"},
    {"직접", "direct"},
    {"직접 모드", "direct"},
}};

constexpr std::array<std::string_view, 3> kModeKeys = {"mode", "routingMode", "routing_mode"};

}  // namespace

std::optional<std::string> normalizedMihomoMode(std::optional<std::string_view> value) {
  if (!value) return std::nullopt;
  // Only the Latin labels have case; no other letter lower-cases into one of them.
  const std::string label = base::toLowerAscii(base::trimWhitespace(*value));
  if (label == "global" || label == "rule" || label == "direct") return label;
  for (const auto& [accepted, mode] : kModeLabels) {
    if (label == accepted) return std::string(mode);
  }
  return std::nullopt;
}

std::optional<std::string> runtimeModeFromArgs(const Json& args) {
  if (!args.is_array() || args.empty()) return std::nullopt;
  const Json& first = args.front();
  if (first.is_string()) return normalizedMihomoMode(first.get_ref<const std::string&>());
  if (!first.is_object()) return std::nullopt;
  for (std::string_view key : kModeKeys) {
    const auto found = first.find(key);
    if (found == first.end() || !found->is_string()) continue;
    if (auto mode = normalizedMihomoMode(found->get_ref<const std::string&>())) return mode;
  }
  return std::nullopt;
}

}  // namespace qev::config
