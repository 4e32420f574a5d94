#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace fake_core {

// How a connection was routed: the chain from the node to the entry group, and the rule.
struct Route {
  std::vector<std::string> chains;  // node first, entry group last
  std::string rule;                 // "Match", or empty in global and direct mode
  std::string rulePayload;
  std::string logSuffix;  // "match Match using G[n]", "using GLOBAL", ...
};

struct ConnectionMetadata {
  std::string network = "tcp";
  std::string type;  // "HTTP" or "HTTPS" (a CONNECT)
  std::string sourceIP;
  std::string sourcePort;  // strings, as the core's JSON has them
  std::string destinationIP;
  std::string destinationPort;
  std::string host;
};

// The open connections through the inbound ports and the byte counters the controller reports.
class ConnectionTable {
 public:
  // Registers a connection whose sockets `fds` a DELETE shuts down; returns its id (a UUID).
  std::string open(ConnectionMetadata metadata, Route route, std::vector<int> fds);
  void count(const std::string& id, std::uint64_t upload, std::uint64_t download);
  void remove(const std::string& id);
  void close(const std::string& id);
  void closeAll();
  // GET /connections: the list is null when empty.
  nlohmann::json snapshot() const;
  // Bytes up and down through every connection so far.
  std::pair<std::uint64_t, std::uint64_t> totals() const;

 private:
  struct Entry {
    ConnectionMetadata metadata;
    Route route;
    std::vector<int> fds;
    std::uint64_t upload = 0;
    std::uint64_t download = 0;
    std::chrono::system_clock::time_point start;
  };

  mutable std::mutex mutex_;
  std::map<std::string, Entry> entries_;
  std::uint64_t uploadTotal_ = 0;
  std::uint64_t downloadTotal_ = 0;
};

}  // namespace fake_core
