#pragma once

// Small helpers for the suites that check the test doubles themselves: a child process with
// its output captured in files, and a blocking loopback HTTP client on libcurl.

#include <curl/curl.h>
#include <fcntl.h>
#include <signal.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern char** environ;

namespace qev::test::doubles {

using namespace std::chrono_literals;

inline std::string fileText(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

// Polls `predicate` every 10 ms until it holds or `timeout` passes; returns its last value.
template <class Predicate>
bool waitUntil(Predicate predicate, std::chrono::milliseconds timeout = 10s) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() >= deadline) return predicate();
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

// A program started with fork/exec; standard output and error go to files in `outputDir`.
// Killed and reaped on destruction if still running, and killed when the test process dies.
class ChildProcess {
 public:
  struct Options {
    std::string program;
    std::vector<std::string> args;           // without argv[0]
    std::string argv0;                       // default: the program path
    std::map<std::string, std::string> env;  // added to (or replacing) the inherited ones
    std::filesystem::path outputDir;
  };

  explicit ChildProcess(Options options) : options_(std::move(options)) {
    stdoutFile_ = options_.outputDir / ("stdout-" + std::to_string(counter()++));
    stderrFile_ = options_.outputDir / ("stderr-" + std::to_string(counter()++));
    std::vector<std::string> argv = {options_.argv0.empty() ? options_.program : options_.argv0};
    argv.insert(argv.end(), options_.args.begin(), options_.args.end());
    std::map<std::string, std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
      const std::string text = *entry;
      const auto equals = text.find('=');
      if (equals != std::string::npos) env[text.substr(0, equals)] = text.substr(equals + 1);
    }
    for (const auto& [key, value] : options_.env) env[key] = value;
    std::vector<std::string> envText;
    for (const auto& [key, value] : env) envText.push_back(key + "=" + value);

    std::vector<char*> argvPointers;
    for (auto& arg : argv) argvPointers.push_back(arg.data());
    argvPointers.push_back(nullptr);
    std::vector<char*> envPointers;
    for (auto& entry : envText) envPointers.push_back(entry.data());
    envPointers.push_back(nullptr);

    // Everything the child needs is prepared before fork: it only calls async-signal-safe
    // functions. It dies with this process, so an aborted test leaves no core holding ports.
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
#ifdef __linux__
      prctl(PR_SET_PDEATHSIG, SIGKILL);
#endif
      if (getppid() != parent) _exit(127);
      const int in = open("/dev/null", O_RDONLY);
      const int out = open(stdoutFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      const int err = open(stderrFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (in < 0 || out < 0 || err < 0) _exit(127);
      dup2(in, STDIN_FILENO);
      dup2(out, STDOUT_FILENO);
      dup2(err, STDERR_FILENO);
      sigset_t none;
      sigemptyset(&none);
      sigprocmask(SIG_SETMASK, &none, nullptr);
      execve(options_.program.c_str(), argvPointers.data(), envPointers.data());
      _exit(127);
    }
  }

  ~ChildProcess() {
    if (pid_ > 0 && !status_) {
      kill(pid_, SIGKILL);
      int status = 0;
      waitpid(pid_, &status, 0);
    }
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool started() const {
    return pid_ > 0;
  }
  pid_t pid() const {
    return pid_;
  }
  void signal(int sig) const {
    if (pid_ > 0 && !status_) kill(pid_, sig);
  }

  // The exit code (128 + signal number when killed), or none while it still runs after
  // `timeout`.
  std::optional<int> waitExit(std::chrono::milliseconds timeout = 10s) {
    if (status_ || pid_ <= 0) return status_;
    waitUntil(
        [this] {
          int status = 0;
          if (waitpid(pid_, &status, WNOHANG) == pid_) {
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
          }
          return status_.has_value();
        },
        timeout);
    return status_;
  }
  bool running() {
    return !waitExit(0ms).has_value();
  }

  std::string stdoutText() const {
    return fileText(stdoutFile_);
  }
  std::string stderrText() const {
    return fileText(stderrFile_);
  }

 private:
  static int& counter() {
    static int next = 0;
    return next;
  }

  Options options_;
  std::filesystem::path stdoutFile_;
  std::filesystem::path stderrFile_;
  pid_t pid_ = -1;
  std::optional<int> status_;
};

struct HttpReply {
  long status = 0;  // 0: no reply (refused, timed out)
  std::string body;
  std::multimap<std::string, std::string> headers;  // names lower-cased

  std::string header(const std::string& name) const {
    const auto it = headers.find(name);
    return it == headers.end() ? "" : it->second;
  }
  bool hasHeader(const std::string& name) const { return headers.count(name) > 0; }
};

struct HttpCall {
  std::string method = "GET";
  std::string url;
  std::optional<std::string> body;
  std::vector<std::string> headers;  // "Name: value"
  std::chrono::milliseconds timeout = 5s;
};

inline HttpReply http(const HttpCall& call) {
  HttpReply reply;
  CURL* curl = curl_easy_init();
  if (curl == nullptr) return reply;
  curl_slist* headerList = nullptr;
  for (const auto& header : call.headers)
    headerList = curl_slist_append(headerList, header.c_str());
  // No "Expect: 100-continue" round trip, as the tested clients never send one either.
  headerList = curl_slist_append(headerList, "Expect:");
  const auto writeBody = +[](char* data, size_t size, size_t count, void* target) -> size_t {
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
  };
  const auto writeHeader = +[](char* data, size_t size, size_t count, void* target) -> size_t {
    std::string line(data, size * count);
    const auto colon = line.find(':');
    if (colon != std::string::npos) {
      std::string name = line.substr(0, colon);
      for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      std::string value = line.substr(colon + 1);
      const auto first = value.find_first_not_of(" \t");
      const auto last = value.find_last_not_of(" \t\r\n");
      value = first == std::string::npos ? "" : value.substr(first, last - first + 1);
      static_cast<std::multimap<std::string, std::string>*>(target)->emplace(name, value);
    }
    return size * count;
  };
  curl_easy_setopt(curl, CURLOPT_URL, call.url.c_str());
  curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, call.method.c_str());
  curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(call.timeout.count()));
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headerList);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, writeBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply.body);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, writeHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &reply.headers);
  if (call.body) {
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, call.body->data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(call.body->size()));
  }
  if (call.method == "HEAD") curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
  if (curl_easy_perform(curl) == CURLE_OK) {
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &reply.status);
  } else {
    reply = HttpReply{};
  }
  curl_slist_free_all(headerList);
  curl_easy_cleanup(curl);
  return reply;
}

inline HttpReply httpGet(const std::string& url, std::vector<std::string> headers = {}) {
  return http(HttpCall{"GET", url, std::nullopt, std::move(headers)});
}

// Percent-encodes every byte outside the unreserved set, for names in URL paths.
inline std::string encodeSegment(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out.push_back(static_cast<char>(c));
    } else {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02X", c);
      out += escaped;
    }
  }
  return out;
}

}  // namespace qev::test::doubles
