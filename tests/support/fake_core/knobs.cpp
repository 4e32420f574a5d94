#include "knobs.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace fake_core {

std::string trim(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return "";
  const auto last = text.find_last_not_of(" \t\r\n");
  return std::string(text.substr(first, last - first + 1));
}

std::string env(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

namespace {

std::optional<long> envNumber(const char* name) {
  const std::string text = trim(env(name));
  if (text.empty()) return std::nullopt;
  char* end = nullptr;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (end == nullptr || *end != '\0') return std::nullopt;
  return value;
}

bool envFlag(const char* name) {
  const std::string text = trim(env(name));
  return !text.empty() && text != "0" && text != "false";
}

}  // namespace

DelayFailure::Outcome DelayFailure::outcomeFor(const std::vector<std::string>& path) const {
  if (all != Outcome::kNone) return all;
  for (const auto& name : path) {
    if (deadNames.count(name)) return dead;
  }
  return Outcome::kNone;
}

DelayFailure parseDelayFailure(std::string_view spec) {
  DelayFailure failure;
  std::string text = trim(spec);
  if (text.empty()) return failure;
  if (text == "timeout") {
    failure.all = DelayFailure::Outcome::kTimeout;
    return failure;
  }
  if (text == "error") {
    failure.all = DelayFailure::Outcome::kError;
    return failure;
  }
  if (text.rfind("timeout:", 0) == 0) {
    text = text.substr(8);
  } else if (text.rfind("error:", 0) == 0) {
    failure.dead = DelayFailure::Outcome::kError;
    text = text.substr(6);
  }
  const char separator = text.find('\n') != std::string::npos ? '\n' : ',';
  std::istringstream names(text);
  for (std::string name; std::getline(names, name, separator);) {
    name = trim(name);
    if (!name.empty()) failure.deadNames.insert(name);
  }
  return failure;
}

DelayFailure Knobs::currentDelayFailure() const {
  if (!delayFailFile.empty()) {
    std::ifstream file(delayFailFile, std::ios::binary);
    if (file) {
      std::ostringstream content;
      content << file.rdbuf();
      return parseDelayFailure(content.str());
    }
  }
  return parseDelayFailure(delayFail);
}

std::string Knobs::startupStderr() const {
  if (!stderrBytes) return stderrText;
  const std::string pattern = stderrText.empty() ? std::string("0123456789") : stderrText;
  std::string out;
  out.reserve(*stderrBytes);
  while (out.size() < *stderrBytes) out += pattern;
  out.resize(*stderrBytes);
  return out;
}

Knobs knobsFromEnvironment() {
  Knobs knobs;
  knobs.startDelayMs = static_cast<int>(envNumber("FAKE_CORE_START_DELAY_MS").value_or(0));
  knobs.applyDelayMs = static_cast<int>(envNumber("FAKE_CORE_APPLY_DELAY_MS").value_or(0));
  if (auto status = envNumber("FAKE_CORE_EXIT_AT_START"))
    knobs.exitAtStart = static_cast<int>(*status);
  knobs.stderrText = env("FAKE_CORE_STDERR");
  if (auto bytes = envNumber("FAKE_CORE_STDERR_BYTES"); bytes && *bytes >= 0) {
    knobs.stderrBytes = static_cast<std::size_t>(*bytes);
  }
  knobs.hangController = envFlag("FAKE_CORE_HANG_CONTROLLER");
  knobs.refuseSelect = envFlag("FAKE_CORE_REFUSE_SELECT");
  knobs.delayFail = env("FAKE_CORE_DELAY_FAIL");
  knobs.delayFailFile = env("FAKE_CORE_DELAY_FAIL_FILE");
  knobs.delayMs = static_cast<int>(envNumber("FAKE_CORE_DELAY_MS").value_or(42));
  knobs.requestLog = env("FAKE_CORE_REQUEST_LOG");
  knobs.configLog = env("FAKE_CORE_CONFIG_LOG");
  return knobs;
}

}  // namespace fake_core
