#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/json.h"

namespace qev::test {

using namespace std::chrono_literals;

// Drives `qev --headless` as a child process through its stdin/stdout JSON lines.
class HeadlessQev {
 public:
  struct Options {
    std::filesystem::path home;                 // becomes HOME
    std::map<std::string, std::string> env;     // extra or overriding variables ("" unsets)
    std::vector<std::string> args{"--headless"};
  };

  explicit HeadlessQev(Options options);
  explicit HeadlessQev(std::filesystem::path home) : HeadlessQev(Options{std::move(home), {}, {"--headless"}}) {}
  ~HeadlessQev();
  HeadlessQev(const HeadlessQev&) = delete;
  HeadlessQev& operator=(const HeadlessQev&) = delete;

  void send(const Json& message);
  void sendRaw(const std::string& line);
  // Sends {"id": id, "name": name, "args": args} and waits for its answer line.
  std::optional<Json> call(const std::string& id, const std::string& name,
                           const Json& args = Json::array(),
                           std::chrono::milliseconds timeout = 60s);
  std::optional<Json> waitAnswer(const std::string& id, std::chrono::milliseconds timeout = 60s);
  std::vector<Json> answers();

  void closeInput();
  void signal(int sig);
  // The exit status, or nothing when it has not ended within the time-out (it is then killed).
  std::optional<int> waitExit(std::chrono::milliseconds timeout = 90s);

  std::filesystem::path dataFolder() const;
  std::string logText() const;
  std::vector<std::string> logMessages() const;  // entries without their time stamps
  std::string stderrText();

 private:
  void readStdout(int fd);
  void readStderr(int fd);

  Options options_;
  pid_t pid_ = -1;
  int stdin_ = -1;
  std::optional<int> status_;
  std::thread outReader_;
  std::thread errReader_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Json> answers_;
  std::string stderr_;
};

// Polls `predicate` every 20 ms until it holds or `timeout` passes; returns its last value.
template <class Predicate>
bool eventually(Predicate predicate, std::chrono::milliseconds timeout = 20s) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() >= deadline) return predicate();
    std::this_thread::sleep_for(20ms);
  }
  return true;
}

}  // namespace qev::test
