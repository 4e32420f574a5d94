#include "controller/live_feed.h"

#include <algorithm>
#include <array>

#include "base/redaction.h"
#include "base/strings.h"

namespace qev::controller {
namespace {

// Reopening waits at least a second, so nothing reaches the core more often than that.
constexpr std::chrono::milliseconds kFirstRetry{1000};
constexpr std::chrono::milliseconds kLongestRetry{8000};
constexpr std::chrono::seconds kConnectBudget{5};
constexpr std::size_t kMaxLineBytes = 64 * 1024;  // a longer line is the core misbehaving

constexpr std::array<std::string_view, 4> kLevels = {"debug", "info", "warning", "error"};

int levelRank(std::string_view level) {
  const auto it = std::find(kLevels.begin(), kLevels.end(), level);
  return it == kLevels.end() ? -1 : static_cast<int>(it - kLevels.begin());
}

std::uint64_t count(const Json& object, const char* key) {
  const auto it = object.find(key);
  if (it == object.end()) return 0;
  if (it->is_number_unsigned()) return it->get<std::uint64_t>();
  if (it->is_number_integer() && it->get<std::int64_t>() > 0) return it->get<std::uint64_t>();
  return 0;
}

}  // namespace

LiveFeed::LiveFeed(net::HttpSession& session, ControllerClient& controller,
                   base::Executors& executors)
    : session_(session), controller_(controller), executors_(executors) {}

LiveFeed::~LiveFeed() {
  stop();
}

void LiveFeed::start(TrafficListener onTraffic) {
  std::lock_guard lock(mutex_);
  if (running_) return;
  running_ = true;
  onTraffic_ = std::move(onTraffic);
  openLocked(traffic_);
  openLocked(logs_);
}

void LiveFeed::stop() {
  std::lock_guard lock(mutex_);
  running_ = false;
}

void LiveFeed::coreReady() {
  std::lock_guard lock(mutex_);
  if (!running_) return;
  for (Stream* stream : {&traffic_, &logs_}) {
    stream->backoff = std::chrono::milliseconds(0);
    if (!stream->open) openLocked(*stream);
  }
}

void LiveFeed::openLocked(Stream& stream) {
  const std::uint64_t generation = ++stream.generation;
  stream.open = true;
  stream.delivered = false;
  stream.pending.clear();
  net::HttpRequest request;
  request.url =
      controller_.base() + (stream.kind == Kind::kTraffic ? "/traffic" : "/logs?level=info");
  request.timeout = kConnectBudget;
  controller_.authorize(request);
  request.onData = [this, &stream, generation](std::string_view data) {
    return receive(stream, generation, data);
  };
  session_.send(std::move(request), [this, &stream, generation](const Result<net::HttpResponse>&) {
    ended(stream, generation);
  });
}

bool LiveFeed::receive(Stream& stream, std::uint64_t generation, std::string_view data) {
  std::vector<std::string> lines;
  {
    std::lock_guard lock(mutex_);
    if (!running_ || generation != stream.generation) return false;
    stream.delivered = true;
    stream.pending.append(data);
    std::size_t start = 0;
    for (std::size_t nl; (nl = stream.pending.find('\n', start)) != std::string::npos;
         start = nl + 1) {
      lines.emplace_back(stream.pending, start, nl - start);
    }
    stream.pending.erase(0, start);
    if (stream.pending.size() > kMaxLineBytes) return false;
  }
  for (const auto& line : lines) takeLine(stream.kind, line);
  return true;
}

void LiveFeed::takeLine(Kind kind, std::string_view line) {
  const Json value = base::parseJson(line);
  if (!value.is_object()) return;
  if (kind == Kind::kTraffic) {
    Json sample;
    {
      std::lock_guard lock(mutex_);
      up_ = count(value, "up");
      down_ = count(value, "down");
      upTotal_ += up_;
      downTotal_ += down_;
      sample = {{"up", up_}, {"down", down_}, {"upTotal", upTotal_}, {"downTotal", downTotal_}};
    }
    if (onTraffic_) onTraffic_(sample);
    return;
  }
  const auto type = value.find("type");
  const auto payload = value.find("payload");
  if (type == value.end() || !type->is_string() || payload == value.end() ||
      !payload->is_string()) {
    return;
  }
  Json entry = {{"time", base::iso8601UtcStamp(std::chrono::system_clock::now())},
                {"level", type->get<std::string>()},
                {"text", base::redactFreeText(payload->get<std::string>())}};
  std::lock_guard lock(mutex_);
  lines_.push_back(std::move(entry));
  if (lines_.size() > kLogLines) lines_.pop_front();
}

void LiveFeed::ended(Stream& stream, std::uint64_t generation) {
  std::lock_guard lock(mutex_);
  if (generation != stream.generation) return;
  stream.open = false;
  if (!running_) return;
  // A stream that worked is retried soon; one that keeps failing, less and less often.
  stream.backoff =
      stream.delivered ? kFirstRetry : std::clamp(stream.backoff * 2, kFirstRetry, kLongestRetry);
  executors_.postAfter(stream.backoff, [this, &stream, generation] {
    std::lock_guard lock(mutex_);
    if (running_ && !stream.open && stream.generation == generation) openLocked(stream);
  });
}

Json LiveFeed::traffic() const {
  std::lock_guard lock(mutex_);
  return {{"up", up_}, {"down", down_}, {"upTotal", upTotal_}, {"downTotal", downTotal_}};
}

Json LiveFeed::logs(std::string_view level) const {
  const int rank = levelRank(level);
  const int wanted = rank < 0 ? levelRank("info") : rank;
  Json out = Json::array();
  std::lock_guard lock(mutex_);
  for (const auto& line : lines_) {
    if (levelRank(line["level"].get<std::string>()) >= wanted) out.push_back(line);
  }
  return out;
}

}  // namespace qev::controller
