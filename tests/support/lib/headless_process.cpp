#include "headless_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
#include <stdexcept>

#include "process/process_runner.h"
#include "temp_home.h"
#include "test_config.h"

extern char** environ;

namespace qev::test {
namespace {

std::vector<std::string> childEnvironment(const HeadlessQev::Options& options) {
  std::map<std::string, std::string> vars;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry(*e);
    const auto eq = entry.find('=');
    if (eq != std::string::npos) vars[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  // Nothing of the developer's own desktop leaks into a test run.
  vars.erase("XDG_DATA_HOME");
  vars.erase("XDG_CONFIG_HOME");
  vars["HOME"] = options.home.string();
  vars["QEV_RESOURCES_DIR"] = kStageDir;
  for (const auto& [key, value] : options.env) {
    if (value.empty()) {
      vars.erase(key);
    } else {
      vars[key] = value;
    }
  }
  std::vector<std::string> out;
  for (const auto& [key, value] : vars) out.push_back(key + "=" + value);
  return out;
}

}  // namespace

HeadlessQev::HeadlessQev(Options options) : options_(std::move(options)) {
  int in[2], out[2], err[2];
  if (!process::openCloexecPipe(in) || !process::openCloexecPipe(out) ||
      !process::openCloexecPipe(err)) {
    throw std::runtime_error("pipe failed");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);

  std::vector<std::string> args{kQevBinary};
  args.insert(args.end(), options_.args.begin(), options_.args.end());
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  auto envStrings = childEnvironment(options_);
  std::vector<char*> envp;
  for (auto& e : envStrings) envp.push_back(e.data());
  envp.push_back(nullptr);

  const int rc = ::posix_spawn(&pid_, kQevBinary, &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  if (rc != 0) throw std::runtime_error(std::string("spawn failed: ") + std::strerror(rc));
  stdin_ = in[1];
  outReader_ = std::thread([this, fd = out[0]] { readStdout(fd); });
  errReader_ = std::thread([this, fd = err[0]] { readStderr(fd); });
}

HeadlessQev::~HeadlessQev() {
  closeInput();
  if (!status_) {
    if (!waitExit(5s)) {
      ::kill(pid_, SIGKILL);
      waitExit(5s);
    }
  }
  if (outReader_.joinable()) outReader_.join();
  if (errReader_.joinable()) errReader_.join();
}

void HeadlessQev::send(const Json& message) {
  sendRaw(message.dump());
}

void HeadlessQev::sendRaw(const std::string& line) {
  const std::string data = line + "\n";
  std::size_t done = 0;
  while (stdin_ >= 0 && done < data.size()) {
    const ssize_t n = ::write(stdin_, data.data() + done, data.size() - done);
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
}

std::optional<Json> HeadlessQev::call(const std::string& id, const std::string& name,
                                      const Json& args, std::chrono::milliseconds timeout) {
  send(Json{{"id", id}, {"name", name}, {"args", args}});
  return waitAnswer(id, timeout);
}

std::optional<Json> HeadlessQev::waitAnswer(const std::string& id,
                                            std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  std::optional<Json> found;
  changed_.wait_for(lock, timeout, [&] {
    for (const auto& a : answers_) {
      if (a.value("id", "") == id) {
        found = a;
        return true;
      }
    }
    return false;
  });
  return found;
}

std::vector<Json> HeadlessQev::answers() {
  std::lock_guard lock(mutex_);
  return answers_;
}

void HeadlessQev::closeInput() {
  if (stdin_ >= 0) {
    ::close(stdin_);
    stdin_ = -1;
  }
}

void HeadlessQev::signal(int sig) {
  ::kill(pid_, sig);
}

std::optional<int> HeadlessQev::waitExit(std::chrono::milliseconds timeout) {
  if (status_) return status_;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    int status = 0;
    const pid_t r = ::waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return status_;
    }
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(10ms);
  }
}

std::filesystem::path HeadlessQev::dataFolder() const {
  const auto it = options_.env.find("XDG_DATA_HOME");
  const std::filesystem::path dataHome = (it != options_.env.end() && !it->second.empty())
                                             ? std::filesystem::path(it->second)
                                             : options_.home / ".local" / "share";
  return dataHome / "qevjs";
}

std::string HeadlessQev::logText() const {
  return readText(dataFolder() / "native-webview.log");
}

std::vector<std::string> HeadlessQev::logMessages() const {
  std::vector<std::string> messages;
  std::istringstream in(logText());
  std::string line;
  while (std::getline(in, line)) {
    // "[2026-11-15T18:30:00Z] message"
    if (line.size() > 23 && line[0] == '[' && line[21] == ']') {
      messages.push_back(line.substr(23));
    } else if (!messages.empty()) {
      messages.back() += "\n" + line;  // continuation of a multi-line entry
    }
  }
  return messages;
}

std::string HeadlessQev::stderrText() {
  std::lock_guard lock(mutex_);
  return stderr_;
}

void HeadlessQev::readStdout(int fd) {
  std::string buffer;
  char chunk[4096];
  while (true) {
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n <= 0) break;
    buffer.append(chunk, static_cast<std::size_t>(n));
    std::size_t nl;
    while ((nl = buffer.find('\n')) != std::string::npos) {
      Json answer = Json::parse(buffer.substr(0, nl), nullptr, false);
      buffer.erase(0, nl + 1);
      std::lock_guard lock(mutex_);
      answers_.push_back(answer.is_discarded() ? Json{{"unparsed", true}} : answer);
      changed_.notify_all();
    }
  }
  ::close(fd);
}

void HeadlessQev::readStderr(int fd) {
  char chunk[4096];
  while (true) {
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n <= 0) break;
    std::lock_guard lock(mutex_);
    stderr_.append(chunk, static_cast<std::size_t>(n));
  }
  ::close(fd);
}

}  // namespace qev::test
