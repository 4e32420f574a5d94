#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <iostream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "awaited.h"
#include "base/fs.h"
#include "base/json.h"
#include "base/strings.h"
#include "core/mihomo_supervisor.h"
#include "process/process_runner.h"
#include "recording_logger.h"
#include "temp_home.h"
#include "test_config.h"
#include "test_processes.h"

namespace qev::core {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// A temporary home with the Linux profile, a core launcher in its libs folder that runs the
// real launcher script with the test core, and a supervisor whose stale-core patterns are
// confined to this home, so that no other core on the machine is touched.
class LauncherRig {
 public:
  using CoreEnvironment = std::map<std::string, std::string>;
  // Restarts that are expected to fail get a short `startWait`; the others a generous one, since
  // a sanitizer build on a busy machine starts the test core slowly.
  explicit LauncherRig(CoreEnvironment coreEnvironment = {}, bool installLauncher = true,
                       std::chrono::milliseconds startWait = 20s)
      : profile_(makeProfile(dir_.path())), port_(test::freeLoopbackPort()) {
    timings_.startWait = startWait;
    fs::create_directories(profile_.paths.appSupport);
    if (installLauncher) writeLauncher(std::move(coreEnvironment));
    controller_ = std::make_unique<controller::ControllerClient>(
        session_, log_, "http://127.0.0.1:" + std::to_string(port_));
    readiness_ = std::make_unique<ControllerReadiness>(session_, *controller_, executors_,
                                                       ReadinessTimings{2s, 100ms});
    supervisor_ = std::make_unique<MihomoSupervisor>(profile_, log_, systemLog_, executors_,
                                                     *readiness_, *controller_, hooks(), timings_);
  }

  ~LauncherRig() {
    if (::testing::Test::HasFailure()) {
      for (const auto& line : log_.lines()) std::cerr << "log: " << line << "\n";
    }
    supervisor_->stopForShutdown();
    supervisor_->killStaleMihomo();
    session_.stop();
    executors_.stop();
    supervisor_.reset();
  }

  static storage::Profile makeProfile(const fs::path& root) {
    auto profile = storage::Profile::forLinux(test::environmentIn(root));
    for (auto& pattern : profile.staleCorePatterns) {
      pattern.insert(std::string("clash.mihomo.*").size(), root.string() + ".*");
    }
    return profile;
  }

  CoreHooks hooks() {
    CoreHooks hooks;
    hooks.prepareRuntimeConfigFile = [this] {
      ++prepared;
      if (!hasConfig) return false;
      test::writeText(profile_.paths.configYaml,
                      "external-controller: 127.0.0.1:" + std::to_string(port_) +
                          "\nmode: rule\nproxies:\n  - {name: n1, type: ss, server: 127.0.0.1, "
                          "port: 1, cipher: aes-128-gcm, password: p}\n");
      return true;
    };
    hooks.hasRunnableConfig = [this] { return hasConfig.load(); };
    hooks.removeRuntimePlaintextConfigs = [this] {
      ++removed;
      std::error_code ec;
      fs::remove(profile_.paths.configYaml, ec);
    };
    hooks.ensureGeoDataFiles = [this] { ++geoEnsured; };
    hooks.readTunSetting = [this] { return tun.load(); };
    hooks.tunAdminAuthorizationFailed = [this] { return tunAdminFailed.load(); };
    hooks.rollbackTunAfterAdminFailure = [this] {
      ++rolledBack;
      tun = false;
    };
    return hooks;
  }

  void writeLauncher(const std::map<std::string, std::string>& coreEnvironment) {
    std::string script =
        "#!/bin/sh\nexport QEV_MIHOMO=" + test::shellQuoted(test::kFakeCore) + "\n";
    for (const auto& [name, value] : coreEnvironment) {
      script += "export " + name + "=" + test::shellQuoted(value) + "\n";
    }
    script += "exec " + test::shellQuoted(std::string(test::kStageDir) + "/libs/linux/clash") +
              " \"$@\"\n";
    const auto launcher = profile_.paths.libs / "clash";
    test::writeText(launcher, script);
    fs::permissions(launcher, fs::perms::owner_all);
  }

  bool restart(const std::string& reason) {
    return test::awaited<bool>(
        [&](auto done) { supervisor_->restartMihomoSerialized(reason, done); });
  }
  bool ensureRunning() {
    return test::awaited<bool>([&](auto done) { supervisor_->ensureMihomoRunning(done); });
  }
  bool reloadOrRestart() {
    return test::awaited<bool>([&](auto done) { supervisor_->reloadOrRestartMihomo(done); });
  }
  bool controllerReady() {
    return test::awaited<bool>([&](auto done) { readiness_->isControllerReady(done); });
  }

  // The pid of the n-th (from 1) "native.mihomo.started: " line.
  int startedPid(std::size_t n = 1) const {
    const auto lines = log_.linesStartingWith("native.mihomo.started: ");
    if (lines.size() < n) return -1;
    return std::stoi(lines[n - 1].substr(std::string("native.mihomo.started: ").size()));
  }

  test::TempDir dir_;
  storage::Profile profile_;
  int port_;
  SupervisorTimings timings_{20s, 20s, 100ms};
  test::RecordingLogger log_;
  test::RecordingLogger systemLog_;
  base::Executors executors_{4};
  net::HttpSession session_{executors_};
  std::unique_ptr<controller::ControllerClient> controller_;
  std::unique_ptr<ControllerReadiness> readiness_;
  std::unique_ptr<MihomoSupervisor> supervisor_;

  std::atomic<bool> hasConfig{true};
  std::atomic<bool> tun{false};
  std::atomic<bool> tunAdminFailed{false};
  std::atomic<int> prepared{0};
  std::atomic<int> removed{0};
  std::atomic<int> geoEnsured{0};
  std::atomic<int> rolledBack{0};
};

TEST(LauncherTest, StartsTheCoreThroughTheLauncherAndRemovesThePlaintextFile) {
  LauncherRig rig;
  ASSERT_TRUE(rig.restart("start"));
  const auto lines = rig.log_.lines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], "native.mihomo.start");
  const int pid = rig.startedPid();
  ASSERT_GT(pid, 0);
  EXPECT_EQ(test::commandLineOf(pid), "clash.mihomo -d " + rig.profile_.paths.appSupport.string() +
                                          " -f " + rig.profile_.paths.configYaml.string() + " ");
  EXPECT_EQ(rig.geoEnsured.load(), 1);
  EXPECT_EQ(rig.removed.load(), 1);
  EXPECT_FALSE(base::itemExists(rig.profile_.paths.configYaml));
  EXPECT_TRUE(rig.controllerReady());

  // Shutdown: SIGTERM, and the core's clean exit is logged.
  rig.supervisor_->stopForShutdown();
  EXPECT_EQ(rig.log_.waitFor("native.mihomo.exit: "), "native.mihomo.exit: status=0 ");
}

TEST(LauncherTest, ConcurrentRestartsJoinTheRunningOne) {
  LauncherRig rig(LauncherRig::CoreEnvironment{{"FAKE_CORE_START_DELAY_MS", "700"}});
  std::mutex mutex;
  std::vector<std::pair<std::string, bool>> completions;
  std::promise<void> allDone;
  const auto record = [&](std::string who) {
    return [&, who](bool ok) {
      std::lock_guard lock(mutex);
      completions.emplace_back(who, ok);
      if (completions.size() == 4) allDone.set_value();
    };
  };
  rig.supervisor_->restartMihomoSerialized("start", record("starter"));
  std::vector<std::thread> joiners;
  for (const char* who : {"a", "b", "c"}) {
    joiners.emplace_back(
        [&, who] { rig.supervisor_->restartMihomoSerialized("restart", record(who)); });
  }
  for (auto& joiner : joiners) joiner.join();
  allDone.get_future().get();

  EXPECT_EQ(rig.log_.linesStartingWith("native.mihomo.started: ").size(), 1u);
  EXPECT_EQ(rig.log_.linesStartingWith("native.mihomo.start").size(), 2u);  // start + started
  EXPECT_EQ(rig.log_.linesStartingWith("native.mihomo.restart.join: restart").size(), 3u);
  ASSERT_EQ(completions.size(), 4u);
  EXPECT_EQ(completions[0].first, "starter");
  for (const auto& [who, ok] : completions) EXPECT_TRUE(ok) << who;

  // Once finished, the next request starts a new restart, which sweeps the old core away.
  const int first = rig.startedPid(1);
  ASSERT_TRUE(rig.restart("restart"));
  const int second = rig.startedPid(2);
  ASSERT_GT(second, 0);
  EXPECT_NE(first, second);
  // SIGTERM ends it with 0, unless it was slow enough to get the -9 of the sweep.
  const auto exitLine = rig.log_.waitFor("native.mihomo.exit: ");
  EXPECT_TRUE(exitLine == "native.mihomo.exit: status=0 " ||
              exitLine == "native.mihomo.exit: status=9 ")
      << exitLine;
  EXPECT_FALSE(test::processAlive(first));
  EXPECT_EQ(rig.removed.load(), 2);
}

TEST(LauncherTest, MissingLauncherIsLoggedAndTheRestartEndsFalse) {
  LauncherRig rig({}, /*installLauncher=*/false, 500ms);
  test::writeText(rig.profile_.paths.configYaml, "leftover");
  EXPECT_FALSE(rig.restart("start"));
  EXPECT_EQ(rig.log_.linesStartingWith("native.mihomo.missingLauncher: "),
            std::vector<std::string>{"native.mihomo.missingLauncher: " +
                                     (rig.profile_.paths.libs / "clash").string()});
  EXPECT_EQ(rig.prepared.load(), 0);
  EXPECT_FALSE(base::itemExists(rig.profile_.paths.configYaml));
}

TEST(LauncherTest, TunOnRestartsAnAnsweringCoreOncePerRun) {
  LauncherRig rig;
  ASSERT_TRUE(rig.restart("start"));
  rig.tun = true;
  ASSERT_TRUE(rig.ensureRunning());
  EXPECT_EQ(rig.log_.linesStartingWith("native.mihomo.ensureTunRestart").size(), 1u);
  EXPECT_EQ(rig.log_.linesStartingWith("native.mihomo.started: ").size(), 2u);
  ASSERT_TRUE(rig.ensureRunning());
  EXPECT_EQ(rig.log_.linesStartingWith("native.mihomo.started: ").size(), 2u);

  // A refused administrator request rolls TUN back before anything else.
  rig.supervisor_->setTunRuntimeEnsured(false);
  rig.tunAdminFailed = true;
  ASSERT_TRUE(rig.ensureRunning());
  EXPECT_EQ(rig.log_.linesStartingWith("native.tun.admin.rollback.startup").size(), 1u);
  EXPECT_EQ(rig.rolledBack.load(), 1);
  EXPECT_EQ(rig.log_.linesStartingWith("native.mihomo.started: ").size(), 2u);
}

TEST(LauncherTest, ReloadAsksARunningCoreToRereadItsFile) {
  const auto requestLog = fs::temp_directory_path() /
                          ("qev-launcher-requests-" + std::to_string(::getpid()) + ".jsonl");
  fs::remove(requestLog);
  LauncherRig rig(LauncherRig::CoreEnvironment{{"FAKE_CORE_REQUEST_LOG", requestLog.string()}});
  ASSERT_TRUE(rig.restart("start"));
  const int removedAfterStart = rig.removed.load();

  ASSERT_TRUE(rig.supervisor_ != nullptr);
  test::writeText(
      rig.profile_.paths.configYaml,
      "external-controller: 127.0.0.1:" + std::to_string(rig.port_) + "\nmode: global\n");
  ASSERT_TRUE(rig.reloadOrRestart());
  EXPECT_EQ(rig.log_.linesStartingWith("native.mihomo.started: ").size(), 1u);
  EXPECT_EQ(rig.removed.load(), removedAfterStart + 1);
  EXPECT_FALSE(base::itemExists(rig.profile_.paths.configYaml));

  // The reload, then the port settings, as the core saw them.
  std::vector<Json> requests;
  const std::string requestLines = test::readText(requestLog);
  for (const auto& line : base::splitLines(requestLines)) {
    if (!line.empty()) requests.push_back(Json::parse(line));
  }
  const auto at = [&](const std::string& method, const std::string& path, std::size_t from) {
    for (std::size_t i = from; i < requests.size(); ++i) {
      if (requests[i]["method"] == method && requests[i]["path"] == path) return i;
    }
    return requests.size();
  };
  const auto reload = at("PUT", "/configs?force=true", 0);
  ASSERT_LT(reload, requests.size());
  EXPECT_EQ(Json::parse(requests[reload]["body"].get<std::string>()), Json::object());
  const auto ports = at("PUT", "/configs", reload + 1);
  ASSERT_LT(ports, requests.size());
  EXPECT_EQ(Json::parse(requests[ports]["body"].get<std::string>()),
            Json({{"port", 33210}, {"socks-port", 33211}}));
  fs::remove(requestLog);

  // With TUN on, a reload is always a new core.
  rig.tun = true;
  ASSERT_TRUE(rig.reloadOrRestart());
  EXPECT_EQ(rig.log_.linesStartingWith("native.mihomo.restartForTun").size(), 1u);
  EXPECT_EQ(rig.log_.linesStartingWith("native.mihomo.started: ").size(), 2u);
}

TEST(LauncherTest, StaleCoresAreSweptEvenWhenTheyIgnoreSigterm) {
  LauncherRig rig({}, /*installLauncher=*/false);
  const std::string dataFolder = rig.profile_.paths.appSupport.string();
  const std::string title = "clash.mihomo -d " + dataFolder + " -f " + dataFolder + "/config.yaml";
  auto polite = process::spawnWithErrorPipe(
      "/bin/bash", {"-c", "exec -a " + test::shellQuoted(title) + " sleep 300"});
  auto stubborn = process::spawnWithErrorPipe(
      "/bin/bash", {"-c", "trap '' TERM; exec -a " + test::shellQuoted(title) + " sleep 300"});
  // An unrelated process with a similar command line outside this home survives.
  auto bystander = process::spawnWithErrorPipe(
      "/bin/bash", {"-c", "exec -a 'clash.mihomo -d /elsewhere/qevjs -f x' sleep 300"});
  ASSERT_TRUE(polite && stubborn && bystander);
  std::this_thread::sleep_for(200ms);  // let bash exec
  ASSERT_NE(test::commandLineOf(polite.value().pid).find("clash.mihomo"), std::string::npos);

  rig.supervisor_->killStaleMihomo();

  int status = 0;
  ASSERT_EQ(::waitpid(polite.value().pid, &status, 0), polite.value().pid);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  ASSERT_EQ(::waitpid(stubborn.value().pid, &status, 0), stubborn.value().pid);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  EXPECT_TRUE(test::processAlive(bystander.value().pid));
  ::kill(bystander.value().pid, SIGKILL);
  ::waitpid(bystander.value().pid, &status, 0);
  for (const auto& child : {polite.value(), stubborn.value(), bystander.value()}) {
    ::close(child.errorPipe);
  }
}

// The launchers' requests for TUN rights (Linux: capabilities through polkit; macOS: a setuid
// core through the administrator prompt), with stand-ins for id and the privileged tools.
TEST(LauncherScriptTest, TunRightsAreAskedForOnlyWhenSafeAndNeeded) {
  enum class Case { kGranted, kRefused, kAlreadyGranted, kNoTool, kWritableBinary };
  for (const bool darwin : {false, true}) {
    for (const Case c : {Case::kGranted, Case::kRefused, Case::kAlreadyGranted, Case::kNoTool,
                         Case::kWritableBinary}) {
      SCOPED_TRACE(std::string(darwin ? "darwin " : "linux ") + std::to_string(int(c)));
      // A setuid root copy needs root to make.
      if (darwin && c == Case::kAlreadyGranted && ::geteuid() != 0) continue;
      test::TempDir dir;
      const auto tools = dir.path() / "tools";
      const auto data = dir.path() / "data";
      fs::create_directories(data);
      const auto tool = [&](const fs::path& path, const std::string& body) {
        test::writeText(path, "#!/bin/sh\n" + body + "\n");
        fs::permissions(path, fs::perms::owner_all);
      };
      const std::string record = "echo \"$@\" > " +
                                 test::shellQuoted((dir.path() / "asked").string()) +
                                 (c == Case::kRefused ? "; exit 1" : "; exit 0");
      const char* prompt = darwin ? "osascript" : "pkexec";
      if (darwin) {
        if (c != Case::kNoTool) tool(tools / "osascript", record);
      } else {
        tool(tools / "pkexec", record);
        tool(tools / "setcap", "exit 0");
        if (c != Case::kNoTool) {
          tool(tools / "getcap",
               c == Case::kAlreadyGranted ? "echo \"$1 cap_net_admin=ep\"" : "exit 0");
        }
      }
      // A stand-in of the same name early on PATH is never used; `id` plays a normal user.
      tool(dir.path() / "path" / prompt, "touch " + (dir.path() / "hijacked").string());
      tool(dir.path() / "path/id", "echo 1000");
      // The core: the built test core, or a copy that other users may write, or one already
      // setuid root.
      std::string core = fs::canonical(test::kFakeCore).string();
      if (c == Case::kWritableBinary || (darwin && c == Case::kAlreadyGranted)) {
        fs::create_directories(dir.path() / "bin");
        core = (dir.path() / "bin/core").string();
        fs::copy_file(test::kFakeCore, core);
        fs::permissions(core, c == Case::kWritableBinary
                                  ? fs::perms::owner_all | fs::perms::group_all
                                  : fs::perms::owner_all | fs::perms::set_uid);
      }
      test::writeText(data / ".qevjs-tun-cancel", "");
      const auto config = data / ".qevjs-runtime-config.yaml";
      test::writeText(config, "mode: rule\ntun:\n  enable: true\n  stack: system\n");
      const std::string launcher = darwin ? std::string(test::kSourceDir) + "/libs/darwin/clash"
                                          : std::string(test::kStageDir) + "/libs/linux/clash";
      const auto result = process::runProcessOutput(
          "/usr/bin/env", {"PATH=" + (dir.path() / "path").string() + ":/usr/bin:/bin",
                           "QEV_SYSTEM_BIN_DIRS=" + tools.string(), "QEV_MIHOMO=" + core, launcher,
                           "-d", data.string(), "-f", config.string(), "-t"});
      EXPECT_TRUE(result.ok) << result.output;
      // Linux asks through pkexec even without getcap; macOS cannot ask without osascript.
      const bool asked =
          c == Case::kGranted || c == Case::kRefused || (!darwin && c == Case::kNoTool);
      EXPECT_EQ(base::itemExists(dir.path() / "asked"), asked);
      if (asked) {
        const std::string request = test::readText(dir.path() / "asked");
        if (darwin) {
          EXPECT_TRUE(request.ends_with(" end run " + core + "\n")) << request;
        } else {
          EXPECT_EQ(request, (tools / "setcap").string() +
                                 " cap_net_admin,cap_net_bind_service=+ep " + core + "\n");
        }
      }
      const bool refused =
          c == Case::kRefused || c == Case::kWritableBinary || (darwin && c == Case::kNoTool);
      EXPECT_EQ(base::itemExists(data / ".qevjs-tun-cancel"), refused);
      EXPECT_EQ(base::itemExists(data / ".qevjs-tun-admin.ok"), refused);
      EXPECT_FALSE(base::itemExists(dir.path() / "hijacked"));
    }
  }
}

}  // namespace
}  // namespace qev::core
