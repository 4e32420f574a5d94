#include "runtime.h"

#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <limits>
#include <sstream>

#include "go_json.h"

namespace fake_core {
namespace {

std::string readWhole(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

}  // namespace

CoreRuntime::CoreRuntime(const LaunchContext& launch, const Knobs& knobs, CoreLog& log,
                         InboundListeners& listeners, JsonLinesFile& configLog)
    : launch_(launch),
      knobs_(knobs),
      log_(log),
      listeners_(listeners),
      configLog_(configLog),
      selections_(launch.homeDir / "cache.db") {
  secret_ = launch.secretOverride.value_or("");
}

std::string CoreRuntime::bindHost() const {
  if (!allowLan_) return "127.0.0.1";
  return bindAddress_ == "*" || bindAddress_.empty() ? "0.0.0.0" : bindAddress_;
}

void CoreRuntime::apply(const CoreConfig& config, bool force) {
  std::lock_guard lock(mutex_);
  table_ = ProxyTable(config, selections_.all());
  mode_ = config.mode;
  ipv6_ = config.ipv6;
  geoAutoUpdate_ = config.geoAutoUpdate;
  tun_ = config.tun;
  secret_ = launch_.secretOverride.value_or(config.secret);
  matchTarget_ = "DIRECT";
  for (const auto& rule : config.rules) {
    const auto comma = rule.find(',');
    std::string type = rule.substr(0, comma);
    std::erase(type, ' ');
    if (comma == std::string::npos || (type != "MATCH" && type != "match")) continue;
    std::string target = rule.substr(comma + 1);
    target = target.substr(0, target.find(','));
    const auto first = target.find_first_not_of(' ');
    const auto last = target.find_last_not_of(' ');
    if (first != std::string::npos) matchTarget_ = target.substr(first, last - first + 1);
  }
  corsOrigins_ = config.corsOrigins;
  corsPrivateNetwork_ = config.corsPrivateNetwork;
  log_.setLevel(config.logLevel);
  if (force) {
    allowLan_ = config.allowLan;
    bindAddress_ = config.bindAddress;
    listeners_.apply({config.port, config.socksPort, config.mixedPort}, bindHost());
    listeners_.applyExtra(config.extraInbounds);
  }
}

void CoreRuntime::recordLoad(const std::string& event, const std::string& path,
                             const std::string& text, const std::string& error) {
  nlohmann::json entry = {{"event", event},       {"pid", static_cast<long>(getpid())},
                          {"argv", launch_.argv}, {"path", path},
                          {"text", text},         {"ok", error.empty()}};
  if (!error.empty()) entry["error"] = error;
  configLog_.append(entry);
}

LoadResult CoreRuntime::loadFile(const std::filesystem::path& path, const std::string& event) {
  const std::filesystem::path file = path.empty() ? launch_.configFile : path;
  LoadResult loaded = loadCoreConfigFile(file, launch_.homeDir);
  recordLoad(event, file.string(), readWhole(file), loaded.error);
  return loaded;
}

LoadResult CoreRuntime::loadText(const std::string& text, const std::string& event) {
  LoadResult loaded = parseCoreConfig(text, launch_.homeDir);
  recordLoad(event, "", text, loaded.error);
  return loaded;
}

std::optional<std::string> CoreRuntime::reloadFile(const std::filesystem::path& path, bool force,
                                                   const std::string& event) {
  const LoadResult loaded = loadFile(path, event);
  if (!loaded.config) return loaded.error;
  apply(*loaded.config, force);
  return std::nullopt;
}

std::optional<std::string> CoreRuntime::reloadText(const std::string& text, bool force) {
  const LoadResult loaded = loadText(text, "payload");
  if (!loaded.config) return loaded.error;
  apply(*loaded.config, force);
  return std::nullopt;
}

std::optional<std::string> CoreRuntime::corsGrant(const std::string& origin) const {
  std::lock_guard lock(mutex_);
  for (const auto& allowed : corsOrigins_) {
    if (allowed == "*") return std::string("*");
    if (allowed == origin) return origin;
  }
  return std::nullopt;
}

bool CoreRuntime::corsPrivateNetwork() const {
  std::lock_guard lock(mutex_);
  return corsPrivateNetwork_;
}

std::string CoreRuntime::secret() const {
  std::lock_guard lock(mutex_);
  return secret_;
}

nlohmann::json CoreRuntime::proxies() const {
  std::lock_guard lock(mutex_);
  return table_.toJson();
}

std::optional<nlohmann::json> CoreRuntime::proxy(const std::string& name) const {
  std::lock_guard lock(mutex_);
  return table_.entryJson(name);
}

bool CoreRuntime::hasProxy(const std::string& name) const {
  std::lock_guard lock(mutex_);
  return table_.contains(name);
}

ProxyTable::SelectResult CoreRuntime::select(const std::string& group, const std::string& member) {
  std::lock_guard lock(mutex_);
  const auto result = table_.checkSelect(group, member);
  if (result != ProxyTable::SelectResult::kSelected) return result;
  // The refusing knob turns only would-be successes into the core's membership error.
  if (knobs_.refuseSelect) return ProxyTable::SelectResult::kNoSuchMember;
  table_.select(group, member);
  selections_.remember(group, member);
  return result;
}

bool CoreRuntime::unpin(const std::string& group) {
  std::lock_guard lock(mutex_);
  return table_.unpin(group);
}

CoreRuntime::DelayAnswer CoreRuntime::delayTest(const std::string& name, int timeoutMs,
                                                const std::string& url) {
  std::lock_guard lock(mutex_);
  const std::vector<std::string> path = table_.delayPath(name);
  auto outcome = knobs_.currentDelayFailure().outcomeFor(path);
  if (outcome == DelayFailure::Outcome::kNone) {
    const std::string leaf = table_.typeOf(path.back());
    const bool httpUrl = url.rfind("http://", 0) == 0 || url.rfind("https://", 0) == 0;
    if (leaf == "RejectDrop" || timeoutMs <= 0 || knobs_.delayMs >= timeoutMs) {
      outcome = DelayFailure::Outcome::kTimeout;
    } else if (leaf == "Reject" || leaf == "Pass" || leaf == "Compatible" || !httpUrl ||
               knobs_.delayMs <= 0) {
      outcome = DelayFailure::Outcome::kError;
    }
  }
  const auto now = std::chrono::system_clock::now();
  switch (outcome) {
    case DelayFailure::Outcome::kTimeout:
      table_.recordDelay(name, 0, now);
      return {504, 0};
    case DelayFailure::Outcome::kError:
      table_.recordDelay(name, 0, now);
      return {503, 0};
    case DelayFailure::Outcome::kNone:
      break;
  }
  table_.recordDelay(name, knobs_.delayMs, now);
  return {200, knobs_.delayMs};
}

std::optional<nlohmann::json> CoreRuntime::groupDelayTest(const std::string& name, int timeoutMs,
                                                          const std::string& url) {
  std::vector<std::string> members;
  {
    std::lock_guard lock(mutex_);
    const auto entry = table_.entryJson(name);
    if (!entry || !entry->value("all", nlohmann::json()).is_array()) return std::nullopt;
    for (const auto& member : (*entry)["all"]) members.push_back(member.get<std::string>());
  }
  nlohmann::json answered = nlohmann::json::object();
  for (const auto& member : members) {
    const DelayAnswer answer = delayTest(member, timeoutMs, url);
    if (answer.status == 200) answered[member] = answer.delay;
  }
  return answered;
}

Route CoreRuntime::route() const {
  std::lock_guard lock(mutex_);
  const auto chainOf = [this](const std::string& entry) {
    std::vector<std::string> path = table_.delayPath(entry);
    return std::vector<std::string>(path.rbegin(), path.rend());
  };
  const auto describe = [](const std::vector<std::string>& chains) {
    if (chains.size() <= 1) return chains.empty() ? std::string() : chains.front();
    return chains.back() + "[" + chains.front() + "]";
  };
  switch (mode_) {
    case Mode::kGlobal:
      return {chainOf("GLOBAL"), "", "", "using GLOBAL"};
    case Mode::kDirect:
      return {{"DIRECT"}, "", "", "using DIRECT"};
    case Mode::kRule:
      break;
  }
  auto chains = chainOf(matchTarget_);
  const std::string suffix = "match Match using " + describe(chains);
  return {std::move(chains), "Match", "", suffix};
}

nlohmann::ordered_json CoreRuntime::general() const {
  std::lock_guard lock(mutex_);
  const InboundPorts ports = listeners_.bound();
  nlohmann::ordered_json tun = {
      {"enable", tun_.enable},        {"device", tun_.device},
      {"stack", tun_.stack},          {"dns-hijack", tun_.dnsHijack},
      {"auto-route", tun_.autoRoute}, {"auto-detect-interface", tun_.autoDetectInterface}};
  return {{"port", ports.http},
          {"socks-port", ports.socks},
          {"redir-port", 0},
          {"tproxy-port", 0},
          {"mixed-port", ports.mixed},
          {"tun", tun},
          {"allow-lan", allowLan_},
          {"bind-address", bindAddress_},
          {"mode", modeName(mode_)},
          {"log-level", logLevelName(log_.level())},
          {"ipv6", ipv6_},
          {"geo-auto-update", geoAutoUpdate_}};
}

bool CoreRuntime::patch(const nlohmann::json& body) {
  if (body.is_null()) return true;
  if (!body.is_object()) return false;
  const auto present = [&](const char* key) -> const nlohmann::json* {
    const nlohmann::json* value = goField(body, key);
    return value == nullptr || value->is_null() ? nullptr : value;
  };
  // Every value is checked before anything is applied.
  const auto portOf = [&](const char* key, std::optional<int>& out) {
    const nlohmann::json* value = present(key);
    if (value == nullptr) return true;
    if (value->is_number_unsigned()) {
      const auto number = value->get<std::uint64_t>();
      if (number > static_cast<std::uint64_t>(std::numeric_limits<int>::max())) return false;
      out = static_cast<int>(number);
      return true;
    }
    if (!value->is_number_integer()) return false;
    const auto number = value->get<std::int64_t>();
    if (number < std::numeric_limits<int>::min() || number > std::numeric_limits<int>::max()) {
      return false;
    }
    out = static_cast<int>(number);
    return true;
  };
  std::optional<int> port, socksPort, mixedPort, redirPort, tproxyPort;
  if (!portOf("port", port) || !portOf("socks-port", socksPort) ||
      !portOf("mixed-port", mixedPort) || !portOf("redir-port", redirPort) ||
      !portOf("tproxy-port", tproxyPort)) {
    return false;
  }
  std::optional<bool> allowLan, ipv6, tunEnable;
  for (auto [key, out] : {std::pair{"allow-lan", &allowLan}, std::pair{"ipv6", &ipv6}}) {
    if (const nlohmann::json* value = present(key)) {
      if (!value->is_boolean()) return false;
      *out = value->get<bool>();
    }
  }
  std::optional<std::string> bindAddress;
  if (const nlohmann::json* value = present("bind-address")) {
    if (!value->is_string()) return false;
    bindAddress = value->get<std::string>();
  }
  std::optional<Mode> mode;
  if (const nlohmann::json* value = present("mode")) {
    if (!value->is_string()) return false;
    mode = modeFromName(value->get<std::string>());
    if (!mode) return false;
  }
  std::optional<LogLevel> level;
  if (const nlohmann::json* value = present("log-level")) {
    if (!value->is_string()) return false;
    level = logLevelFromName(value->get<std::string>());
    if (!level) return false;
  }
  std::optional<std::string> tunStack;
  if (const nlohmann::json* tun = present("tun")) {
    if (!tun->is_object()) return false;
    if (const nlohmann::json* enable = goField(*tun, "enable"); enable && !enable->is_null()) {
      if (!enable->is_boolean()) return false;
      tunEnable = enable->get<bool>();
    }
    if (const nlohmann::json* stack = goField(*tun, "stack"); stack && !stack->is_null()) {
      if (!stack->is_string()) return false;
      const std::string lowered = [&] {
        std::string s = stack->get<std::string>();
        for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return s;
      }();
      if (lowered == "gvisor") {
        tunStack = "gVisor";
      } else if (lowered == "system") {
        tunStack = "System";
      } else if (lowered == "mixed") {
        tunStack = "Mixed";
      } else {
        return false;
      }
    }
  }

  std::lock_guard lock(mutex_);
  if (allowLan) allowLan_ = *allowLan;
  if (bindAddress) bindAddress_ = *bindAddress;
  const InboundPorts current = listeners_.bound();
  listeners_.apply({port.value_or(current.http), socksPort.value_or(current.socks),
                    mixedPort.value_or(current.mixed)},
                   bindHost());
  if (mode) mode_ = *mode;
  if (level) log_.setLevel(*level);
  if (ipv6) ipv6_ = *ipv6;
  if (tunEnable) tun_.enable = *tunEnable;
  if (tunStack) tun_.stack = *tunStack;
  return true;
}

}  // namespace fake_core
