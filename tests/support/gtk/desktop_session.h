#pragma once

// A private desktop for window tests: a virtual X server, a session bus, the desktop
// application started on them, and the tools that look at and drive it (xdotool, gdbus,
// ImageMagick's import).

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "headless_process.h"  // eventually()
#include "temp_home.h"

extern char** environ;

namespace qev::test::desktop {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Env = std::map<std::string, std::string>;

// The process environment with `overrides` applied; an empty value removes the variable.
inline std::vector<std::string> environmentWith(const Env& overrides) {
  Env merged;
  for (char** entry = environ; *entry; ++entry) {
    const std::string text(*entry);
    const auto equals = text.find('=');
    if (equals != std::string::npos) merged[text.substr(0, equals)] = text.substr(equals + 1);
  }
  for (const auto& [key, value] : overrides) {
    if (value.empty()) {
      merged.erase(key);
    } else {
      merged[key] = value;
    }
  }
  std::vector<std::string> block;
  for (const auto& [key, value] : merged) block.push_back(key + "=" + value);
  return block;
}

inline std::optional<fs::path> findProgram(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::string rest = path ? path : "/usr/bin:/bin";
  std::size_t start = 0;
  while (start <= rest.size()) {
    auto end = rest.find(':', start);
    if (end == std::string::npos) end = rest.size();
    const fs::path candidate = fs::path(rest.substr(start, end - start)) / name;
    if (!candidate.parent_path().empty() && ::access(candidate.c_str(), X_OK) == 0)
      return candidate;
    start = end + 1;
  }
  return std::nullopt;
}

// A child process. Its stdout and stderr go to `output` (or /dev/null); `reportFd` is an
// extra pipe end the child inherits as file descriptor 3, for "print your address" options.
class Child {
 public:
  Child(const std::vector<std::string>& argv, const Env& env, const fs::path& output = {},
        int reportFd = -1) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const std::string sink = output.empty() ? "/dev/null" : output.string();
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, sink.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                     0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    if (reportFd >= 0) posix_spawn_file_actions_adddup2(&actions, reportFd, 3);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const auto envBlock = environmentWith(env);
    std::vector<char*> envp;
    for (const auto& e : envBlock) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    const int rc = posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(rc));
  }

  ~Child() {
    if (status_) return;
    ::kill(pid_, SIGTERM);
    if (!waitExit(5s)) {
      ::kill(pid_, SIGKILL);
      waitExit(5s);
    }
  }

  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int sig) const { ::kill(pid_, sig); }

  // The raw wait status once the child has ended within `timeout`.
  std::optional<int> waitExit(std::chrono::milliseconds timeout) {
    if (status_) return status_;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      int status = 0;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        status_ = status;
        return status_;
      }
      if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
      std::this_thread::sleep_for(20ms);
    }
  }

  bool running() { return !waitExit(0ms).has_value(); }

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;
};

// The first line a child writes on file descriptor 3 ("-displayfd 3", "--print-address=3").
inline std::string readReport(int fd, std::chrono::milliseconds timeout) {
  std::string line;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (line.find('\n') == std::string::npos) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
    char buffer[256];
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n <= 0) break;
    line.append(buffer, static_cast<std::size_t>(n));
  }
  return line.substr(0, line.find('\n'));
}

// A child started with a pipe on descriptor 3 and the first line it reports there.
struct ReportingChild {
  std::unique_ptr<Child> child;
  std::string report;
};

inline ReportingChild startReporting(const std::vector<std::string>& argv, const Env& env,
                                     const fs::path& output) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  ReportingChild started;
  started.child = std::make_unique<Child>(argv, env, output, fds[1]);
  ::close(fds[1]);
  started.report = readReport(fds[0], 15s);
  ::close(fds[0]);
  return started;
}

// Xvfb on a display number it picks itself.
class VirtualDisplay {
 public:
  explicit VirtualDisplay(const fs::path& logFile) {
    auto started = startReporting(
        {"Xvfb", "-displayfd", "3", "-screen", "0", "1024x768x24", "-nolisten", "tcp", "-noreset"},
        {}, logFile);
    server_ = std::move(started.child);
    if (started.report.empty()) throw std::runtime_error("Xvfb did not report a display");
    name_ = ":" + started.report;
  }
  const std::string& name() const { return name_; }

 private:
  std::unique_ptr<Child> server_;
  std::string name_;
};

// A private session bus: the application's single-instance name and its tray menu live here.
class SessionBus {
 public:
  explicit SessionBus(const fs::path& logFile) {
    auto started = startReporting(
        {"dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address=3"}, {}, logFile);
    daemon_ = std::move(started.child);
    if (started.report.empty()) throw std::runtime_error("dbus-daemon did not report an address");
    address_ = started.report;
  }
  const std::string& address() const { return address_; }

 private:
  std::unique_ptr<Child> daemon_;
  std::string address_;
};

struct CommandResult {
  int status = -1;
  std::string output;
};

// Runs a tool to its end and returns its exit status and standard output.
inline CommandResult runTool(const std::vector<std::string>& argv, const Env& env,
                             std::chrono::milliseconds timeout = 20s) {
  TempDir scratch;
  const fs::path out = scratch.path() / "out";
  CommandResult result;
  Child child(argv, env, out);
  const auto status = child.waitExit(timeout);
  if (status && WIFEXITED(*status)) result.status = WEXITSTATUS(*status);
  result.output = readText(out);
  return result;
}

inline std::vector<std::string> words(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string w; in >> w;) out.push_back(w);
  return out;
}

struct Geometry {
  int x = 0, y = 0, width = 0, height = 0;
};

// Sends WM_DELETE_WINDOW, as a window manager does for the close button. libX11 is loaded at
// run time so the tests need no X11 link dependency.
inline bool requestWindowClose(const std::string& display, unsigned long window) {
  void* x11 = ::dlopen("libX11.so.6", RTLD_NOW | RTLD_LOCAL);
  if (!x11) return false;
  using OpenDisplay = void* (*)(const char*);
  using InternAtom = unsigned long (*)(void*, const char*, int);
  using SendEvent = int (*)(void*, unsigned long, int, long, void*);
  using Flush = int (*)(void*);
  using CloseDisplay = int (*)(void*);
  auto open = reinterpret_cast<OpenDisplay>(::dlsym(x11, "XOpenDisplay"));
  auto intern = reinterpret_cast<InternAtom>(::dlsym(x11, "XInternAtom"));
  auto send = reinterpret_cast<SendEvent>(::dlsym(x11, "XSendEvent"));
  auto flush = reinterpret_cast<Flush>(::dlsym(x11, "XFlush"));
  auto close = reinterpret_cast<CloseDisplay>(::dlsym(x11, "XCloseDisplay"));
  void* connection = open ? open(display.c_str()) : nullptr;
  if (!connection) {
    ::dlclose(x11);
    return false;
  }
  // XClientMessageEvent, laid out as Xlib declares it.
  struct {
    int type;
    unsigned long serial;
    int send_event;
    void* display;
    unsigned long window;
    unsigned long message_type;
    int format;
    long data[5];
  } message{};
  message.type = 33;  // ClientMessage
  message.display = connection;
  message.window = window;
  message.message_type = intern(connection, "WM_PROTOCOLS", 0);
  message.format = 32;
  message.data[0] = static_cast<long>(intern(connection, "WM_DELETE_WINDOW", 0));
  message.data[1] = 0;  // CurrentTime
  // The padding of XEvent is larger than the client message; give Xlib a full event.
  long event[24] = {};
  std::memcpy(event, &message, sizeof message);
  const bool sent = send(connection, window, 0, 0, event) != 0;
  flush(connection);
  close(connection);
  ::dlclose(x11);
  return sent;
}

// The application under test on its own display and bus, with a temporary home.
class DesktopQev {
 public:
  struct Options {
    fs::path qev;
    fs::path home;
    fs::path resources;
    fs::path scratch;  // logs of the X server, the bus and the application
    Env env;
  };

  explicit DesktopQev(Options options)
      : options_(std::move(options)),
        display_(inFolder(options_.scratch, "xvfb.log")),
        bus_(inFolder(options_.scratch, "dbus.log")) {
    env_ = {{"HOME", options_.home.string()},
            {"DISPLAY", display_.name()},
            {"DBUS_SESSION_BUS_ADDRESS", bus_.address()},
            {"QEV_RESOURCES_DIR", options_.resources.string()},
            {"XDG_RUNTIME_DIR", (options_.scratch / "runtime").string()},
            {"XDG_DATA_HOME", ""},
            {"XDG_CONFIG_HOME", ""},
            {"XDG_CACHE_HOME", ""},
            {"NO_AT_BRIDGE", "1"},
            {"WAYLAND_DISPLAY", ""},
            {"GDK_BACKEND", "x11"}};
    // Under AddressSanitizer the toolkit's own allocations kept until exit (type system,
    // fonts, caches) would drown any report, so the application is checked for memory errors
    // but not for leaks.
    const char* sanitizer = std::getenv("ASAN_OPTIONS");
    env_["ASAN_OPTIONS"] =
        std::string(sanitizer ? sanitizer : "") + (sanitizer ? ":" : "") + "detect_leaks=0";
    for (const auto& [key, value] : options_.env) env_[key] = value;
    fs::create_directories(options_.scratch / "runtime");
    fs::permissions(options_.scratch / "runtime", fs::perms::owner_all);
    app_ = start();
  }

  // Starts one more instance on the same desktop (a second start of the program).
  std::unique_ptr<Child> start() const {
    return std::make_unique<Child>(std::vector<std::string>{options_.qev.string()}, env_,
                                   options_.scratch / "qev.log");
  }

  Child& app() { return *app_; }
  const Env& env() const { return env_; }
  // What the application printed, for failure messages.
  std::string output() const {
    const auto file = options_.scratch / "qev.log";
    return fs::exists(file) ? readText(file) : "";
  }
  const std::string& display() const { return display_.name(); }

  fs::path logFile() const { return options_.home / ".local/share/qevjs/native-webview.log"; }

  // Log entries without their time stamps.
  std::vector<std::string> logMessages() const {
    std::vector<std::string> messages;
    std::istringstream in(fs::exists(logFile()) ? readText(logFile()) : std::string());
    for (std::string line; std::getline(in, line);) {
      const auto stamp = line.find("] ");
      if (line.starts_with("[") && stamp != std::string::npos) {
        messages.push_back(line.substr(stamp + 2));
      } else if (!messages.empty()) {
        messages.back() += "\n" + line;  // a message with a line break of its own
      }
    }
    return messages;
  }

  // The detail of the first log entry "<prefix>: detail", waiting for it.
  std::optional<std::string> waitForLog(const std::string& prefix,
                                        std::chrono::milliseconds timeout = 30s) const {
    std::optional<std::string> found;
    eventually(
        [&] {
          for (const auto& m : logMessages()) {
            if (m.starts_with(prefix + ": ") || m == prefix) {
              found = m.size() > prefix.size() + 2 ? m.substr(prefix.size() + 2) : "";
              return true;
            }
          }
          return false;
        },
        timeout);
    return found;
  }

  // Whether an entry beginning with `start` shows up within `timeout`.
  bool waitForEntry(const std::string& start, std::chrono::milliseconds timeout = 30s) const {
    return eventually([&] { return countLog(start) > 0; }, timeout);
  }

  std::size_t countLog(const std::string& prefix) const {
    std::size_t n = 0;
    for (const auto& m : logMessages()) n += m.starts_with(prefix) ? 1 : 0;
    return n;
  }

  CommandResult tool(const std::vector<std::string>& argv) const { return runTool(argv, env_); }

  // Visible top-level windows of the application (main window and dialogs).
  std::vector<unsigned long> visibleWindows() const {
    std::vector<unsigned long> ids;
    for (const auto& w :
         words(tool({"xdotool", "search", "--onlyvisible", "--class", "qev"}).output)) {
      ids.push_back(std::stoul(w));
    }
    return ids;
  }

  std::optional<Geometry> geometry(unsigned long window) const {
    const auto out =
        tool({"xdotool", "getwindowgeometry", "--shell", std::to_string(window)}).output;
    Geometry g;
    std::smatch m;
    const auto value = [&](const char* key, int& field) {
      if (std::regex_search(out, m, std::regex(std::string(key) + "=(-?\\d+)"))) {
        field = std::stoi(m[1]);
        return true;
      }
      return false;
    };
    if (!value("X", g.x) || !value("Y", g.y) || !value("WIDTH", g.width) ||
        !value("HEIGHT", g.height)) {
      return std::nullopt;
    }
    return g;
  }

  bool click(int x, int y) const {
    return tool({"xdotool", "mousemove", std::to_string(x), std::to_string(y), "click", "1"})
               .status == 0;
  }

  bool closeWindow(unsigned long window) const { return requestWindowClose(display(), window); }

  // The dbusmenu id of the tray entry with this label, read from the exported menu.
  std::optional<int> trayEntry(const std::string& label) const {
    const auto entry = trayEntryProperties(label);
    return entry ? std::optional<int>(entry->first) : std::nullopt;
  }

  // Whether the tray entry with this label is a choice that is on.
  bool trayEntryChecked(const std::string& label) const {
    const auto entry = trayEntryProperties(label);
    return entry && entry->second.find("'toggle-state': <1>") != std::string::npos;
  }

  // A property of the exported tray item, as gdbus prints it (e.g. "(<'QEV'>,)").
  std::string trayProperty(const std::string& name) const {
    return tool({"gdbus", "call", "--session", "--dest", "com.qevjs.native", "--object-path",
                 kTrayItemPath, "--method", "org.freedesktop.DBus.Properties.Get",
                 "org.kde.StatusNotifierItem", name})
        .output;
  }

  bool clickTrayEntry(int id) const {
    return tool({"gdbus", "call", "--session", "--dest", "com.qevjs.native", "--object-path",
                 kTrayMenuPath, "--method", "com.canonical.dbusmenu.Event", "--",
                 std::to_string(id), "clicked", "<0>", "0"})
               .status == 0;
  }

  bool screenshot(const fs::path& file) const {
    fs::create_directories(file.parent_path());
    return tool({"import", "-window", "root", file.string()}).status == 0;
  }

  // The id and the properties of the tray entry with this label.
  std::optional<std::pair<int, std::string>> trayEntryProperties(const std::string& label) const {
    const auto layout = tool({"gdbus", "call", "--session", "--dest", "com.qevjs.native",
                              "--object-path", kTrayMenuPath, "--method",
                              "com.canonical.dbusmenu.GetLayout", "--", "0", "-1", "[]"});
    // Entries read "(<id>, {... 'label': <'text'> ...}, @av [])".
    const std::regex entry("\\((\\d+), \\{([^{}]*)\\}");
    for (auto it = std::sregex_iterator(layout.output.begin(), layout.output.end(), entry);
         it != std::sregex_iterator(); ++it) {
      if ((*it)[2].str().find("'label': <'" + label + "'>") != std::string::npos) {
        return std::pair{std::stoi((*it)[1].str()), (*it)[2].str()};
      }
    }
    return std::nullopt;
  }

  static fs::path inFolder(const fs::path& folder, const char* name) {
    fs::create_directories(folder);
    return folder / name;
  }

  static constexpr const char* kTrayItemPath = "/org/ayatana/NotificationItem/com_qevjs_native";
  static constexpr const char* kTrayMenuPath =
      "/org/ayatana/NotificationItem/com_qevjs_native/Menu";

 private:
  Options options_;
  VirtualDisplay display_;
  SessionBus bus_;
  Env env_;
  std::unique_ptr<Child> app_;
};

// The tools the window tests drive; a missing one skips the tests.
inline std::optional<std::string> missingDesktopTool() {
  for (const char* tool : {"Xvfb", "dbus-daemon", "xdotool", "gdbus", "import"}) {
    if (!findProgram(tool)) return tool;
  }
  return std::nullopt;
}

}  // namespace qev::test::desktop
