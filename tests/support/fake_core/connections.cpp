#include "connections.h"

#include <sys/socket.h>

#include <cstdio>
#include <random>

#include "core_log.h"

namespace fake_core {
namespace {

std::string newUuid() {
  static std::mutex mutex;
  static std::mt19937_64 random{std::random_device{}()};
  std::lock_guard lock(mutex);
  const std::uint64_t high = random();
  const std::uint64_t low = random();
  char text[40];
  std::snprintf(text, sizeof text, "%08x-%04x-4%03x-%04x-%012llx",
                static_cast<unsigned>(high >> 32), static_cast<unsigned>((high >> 16) & 0xffff),
                static_cast<unsigned>(high & 0xfff), static_cast<unsigned>(0x8000 | (low >> 50)),
                static_cast<unsigned long long>(low & 0xffffffffffffULL));
  return text;
}

}  // namespace

std::string ConnectionTable::open(ConnectionMetadata metadata, Route route, std::vector<int> fds) {
  const std::string id = newUuid();
  std::lock_guard lock(mutex_);
  entries_[id] = Entry{std::move(metadata),
                       std::move(route),
                       std::move(fds),
                       0,
                       0,
                       std::chrono::system_clock::now()};
  return id;
}

void ConnectionTable::count(const std::string& id, std::uint64_t upload, std::uint64_t download) {
  std::lock_guard lock(mutex_);
  uploadTotal_ += upload;
  downloadTotal_ += download;
  if (const auto it = entries_.find(id); it != entries_.end()) {
    it->second.upload += upload;
    it->second.download += download;
  }
}

void ConnectionTable::remove(const std::string& id) {
  std::lock_guard lock(mutex_);
  entries_.erase(id);
}

void ConnectionTable::close(const std::string& id) {
  std::lock_guard lock(mutex_);
  if (const auto it = entries_.find(id); it != entries_.end()) {
    // The relay notices and ends the connection, which then removes itself.
    for (const int fd : it->second.fds) ::shutdown(fd, SHUT_RDWR);
  }
}

void ConnectionTable::closeAll() {
  std::lock_guard lock(mutex_);
  for (const auto& [id, entry] : entries_) {
    for (const int fd : entry.fds) ::shutdown(fd, SHUT_RDWR);
  }
}

nlohmann::json ConnectionTable::snapshot() const {
  std::lock_guard lock(mutex_);
  nlohmann::json list = nlohmann::json::array();
  for (const auto& [id, entry] : entries_) {
    const auto& m = entry.metadata;
    list.push_back({{"id", id},
                    {"metadata",
                     {{"network", m.network},
                      {"type", m.type},
                      {"sourceIP", m.sourceIP},
                      {"sourcePort", m.sourcePort},
                      {"destinationIP", m.destinationIP},
                      {"destinationPort", m.destinationPort},
                      {"host", m.host},
                      {"dnsMode", "normal"},
                      {"process", ""},
                      {"processPath", ""}}},
                    {"upload", entry.upload},
                    {"download", entry.download},
                    {"start", rfc3339Nano(entry.start)},
                    {"chains", entry.route.chains},
                    {"rule", entry.route.rule},
                    {"rulePayload", entry.route.rulePayload}});
  }
  return {{"downloadTotal", downloadTotal_},
          {"uploadTotal", uploadTotal_},
          {"connections", list.empty() ? nlohmann::json(nullptr) : list},
          {"memory", 0}};
}

std::pair<std::uint64_t, std::uint64_t> ConnectionTable::totals() const {
  std::lock_guard lock(mutex_);
  return {uploadTotal_, downloadTotal_};
}

}  // namespace fake_core
