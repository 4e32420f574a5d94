// The native side end to end through `qev --headless`: a subscription link from the test panel,
// a running test core, a chosen node, and the system proxy (real gsettings on a keyfile
// backend) switched on and off again.
#include <random>
#include <thread>

#include "connected_qev.h"

namespace qev::test {
namespace {

TEST_F(ProxyFlowTest, SubscriptionToRunningCoreToSystemProxyAndBack) {
  auto qev = start();
  // 1. The link becomes a protected subscription and a running core.
  auto updated = qev->call("1", "updateConfig", Json::array({subscribeLink()}));
  ASSERT_TRUE(updated);
  ASSERT_EQ((*updated)["result"], true) << updated->dump() << qev->logText();
  EXPECT_EQ(readText(qev->dataFolder() / ".qevjs-subscribe.dat").rfind("QEVJS1\n", 0), 0u);
  EXPECT_FALSE(std::filesystem::exists(qev->dataFolder() / ".qevjs-runtime-config.yaml"));

  auto servers = qev->call("2", "getServers");
  ASSERT_TRUE(servers);
  const Json table = (*servers)["result"];
  ASSERT_TRUE(table.is_object()) << servers->dump();
  ASSERT_TRUE(table.contains("SELECT"));
  for (const auto& [name, entry] : table.items()) {
    EXPECT_EQ(name.find("剩余流量"), std::string::npos);
    EXPECT_NE(name, "自动选择");
    EXPECT_NE(name, "DIRECT");
  }
  const auto members = table["SELECT"]["all"];
  ASSERT_GE(members.size(), 2u);
  const std::string node = members[1];

  // 2. A node name alone is selected in the main group and remembered.
  auto selected = qev->call("3", "setProxy", Json::array({node}));
  ASSERT_TRUE(selected);
  EXPECT_EQ((*selected)["result"], true) << selected->dump();
  EXPECT_TRUE(logHas(*qev, "native.setProxy.ok: group=QEV加速 name=" + node));
  EXPECT_EQ(settingsFile(*qev)["lastSelectedProxyName"], node);

  // 4. A mode label reaches the core as its canonical word and the settings.
  auto mode = qev->call("4", "updateConfig", Json::array({{{"mode", "全局"}}}));
  ASSERT_TRUE(mode);
  EXPECT_NE((*mode).find("result"), mode->end()) << mode->dump();
  EXPECT_EQ(settingsFile(*qev)["mode"], "global");
  bool patched = false;
  std::istringstream requests(readText(dir_.path() / "core-requests.jsonl"));
  for (std::string line; std::getline(requests, line);) {
    const Json request = Json::parse(line, nullptr, false);
    if (request.is_object() && request.value("method", "") == "PATCH" &&
        Json::parse(request.value("body", ""), nullptr, false) == Json{{"mode", "global"}}) {
      patched = true;
    }
  }
  EXPECT_TRUE(patched);

  // 3. Start: the probe passes and the system proxy is on.
  auto started = qev->call("5", "startProxy");
  ASSERT_TRUE(started);
  EXPECT_EQ((*started)["result"], true) << started->dump();
  EXPECT_EQ(gsettings("org.gnome.system.proxy", "mode"), "'manual'");
  EXPECT_EQ(gsettings("org.gnome.system.proxy.http", "port"), "33210");
  EXPECT_EQ(gsettings("org.gnome.system.proxy.socks", "port"), "33211");
  EXPECT_EQ(settingsFile(*qev)["proxyEnabled"], true);

  // 6. End of input with the proxy on: off, saved off, no plaintext left, shutdown last.
  qev->closeInput();
  ASSERT_EQ(qev->waitExit(), 0);
  EXPECT_EQ(gsettings("org.gnome.system.proxy", "mode"), "'none'");
  EXPECT_EQ(settingsFile(*qev)["proxyEnabled"], false);
  EXPECT_FALSE(std::filesystem::exists(qev->dataFolder() / ".qevjs-runtime-config.yaml"));
  EXPECT_EQ(qev->logMessages().back(), "native.shutdown.complete");
}

TEST_F(ProxyFlowTest, DeadNodeKeepsTheSystemProxyOffAndPanelErrorsKeepTheSubscription) {
  auto qev = start({{"FAKE_CORE_DELAY_FAIL", "timeout"}});
  ASSERT_EQ((*qev->call("1", "updateConfig", Json::array({subscribeLink()})))["result"], true);
  const std::string stored = readText(qev->dataFolder() / ".qevjs-subscribe.dat");

  auto started = qev->call("2", "startProxy");
  ASSERT_TRUE(started);
  EXPECT_EQ((*started)["error"], "NODE_UNAVAILABLE") << started->dump();
  EXPECT_NE(gsettings("org.gnome.system.proxy", "mode"), "'manual'");
  EXPECT_TRUE(logHas(*qev, "native.startProxy.unavailable: NODE_UNAVAILABLE"));

  // 5. A 403 from the panel leaves the stored subscription untouched.
  auto refused = qev->call("3", "updateConfig",
                           Json::array({panelBase_ + "/api/v1/client/subscribe?token=wrong"}));
  ASSERT_TRUE(refused);
  EXPECT_EQ((*refused)["error"], "subscribe HTTP 403");
  EXPECT_EQ(readText(qev->dataFolder() / ".qevjs-subscribe.dat"), stored);
}

TEST_F(ProxyFlowTest, RestartRestoresTheProxyOnlyAfterAPassingCheck) {
  {
    auto qev = start();
    ASSERT_EQ((*qev->call("1", "updateConfig", Json::array({subscribeLink()})))["result"], true);
    qev->closeInput();
    ASSERT_EQ(qev->waitExit(), 0);
  }
  const auto home = dir_.path() / "home" / ".local" / "share" / "qevjs" / "qevjs-local.json";
  auto wantOn = [&] {
    Json s = Json::parse(readText(home));
    s["proxyEnabled"] = true;
    writeText(home, s.dump());
  };

  // 7a. A working node: restored.
  wantOn();
  {
    auto qev = start();
    ASSERT_TRUE(eventually([&] { return logHas(*qev, "native.proxy.restore.ok"); }, 60s))
        << qev->logText();
    EXPECT_EQ(gsettings("org.gnome.system.proxy", "mode"), "'manual'");
    qev->signal(SIGTERM);
    ASSERT_EQ(qev->waitExit(), 0);
  }
  // 7b. A dead node: switched off and the wish saved as false.
  wantOn();
  {
    auto qev = start({{"FAKE_CORE_DELAY_FAIL", "error"}});
    ASSERT_TRUE(eventually([&] { return logHas(*qev, "native.proxy.restore.unavailable"); }, 60s))
        << qev->logText();
    EXPECT_EQ(gsettings("org.gnome.system.proxy", "mode"), "'none'");
    EXPECT_EQ(settingsFile(*qev)["proxyEnabled"], false);
  }
}

TEST_F(ProxyFlowTest, KilledWhileConnectedTheGuardTurnsTheDesktopProxyOffAndNoCoreOutlivesIt) {
  auto qev = start();
  connect(*qev);
  qev->signal(SIGKILL);
  qev->waitExit(10s);
  EXPECT_TRUE(eventually([&] { return desktopMode() == "'none'"; }, 5s)) << desktopMode();
  EXPECT_TRUE(eventually([] { return portFree(33210) && portFree(33212); }, 5s));
  EXPECT_TRUE(
      eventually([&] { return logHas(*qev, "native.guard.cleanup: systemProxyOff=true"); }));
  EXPECT_FALSE(std::filesystem::exists(qev->dataFolder() / ".qevjs-runtime-config.yaml"));
  // The stored wish stays on, so the next start brings the proxy back.
  EXPECT_EQ(settingsFile(*qev)["proxyEnabled"], true);
}

TEST_F(ProxyFlowTest, StartClearsADesktopProxyLeftPointingAtNothingButKeepsTheUsersOwn) {
  gsettingsSet("org.gnome.system.proxy.http", "host", "127.0.0.1");
  gsettingsSet("org.gnome.system.proxy.http", "port", "33210");
  gsettingsSet("org.gnome.system.proxy", "mode", "manual");
  {
    auto qev = start();
    EXPECT_TRUE(eventually([&] { return logHas(*qev, "native.systemProxy.repair"); }, 10s));
    EXPECT_EQ(desktopMode(), "'none'");
  }
  // A proxy of the user's own is not qev's to clear.
  gsettingsSet("org.gnome.system.proxy.http", "host", "proxy.example.org");
  gsettingsSet("org.gnome.system.proxy", "mode", "manual");
  auto qev = start();
  ASSERT_TRUE(qev->call("1", "getSettings"));
  qev->closeInput();
  ASSERT_EQ(qev->waitExit(), 0);
  EXPECT_EQ(countLog(*qev, "native.systemProxy.repair"), 1u);  // the first start's only
  EXPECT_EQ(desktopMode(), "'manual'");
}

TEST_F(ProxyFlowTest, ACoreThatDiesIsRestartedAndOneThatCannotStartTurnsTheProxyOffAndSaysSo) {
  const auto core = dir_.path() / "core";
  std::filesystem::create_symlink(kFakeCore, core);
  auto qev = start({{"QEV_MIHOMO", core.string()}});
  connect(*qev);

  ASSERT_EQ(::kill(lastCorePid(*qev), SIGKILL), 0);
  ASSERT_TRUE(eventually([&] { return logHas(*qev, "native.mihomo.watch.recovered"); }, 30s))
      << qev->logText();
  EXPECT_EQ(desktopMode(), "'manual'");
  EXPECT_FALSE(portFree(33210));

  // From now on the core cannot start: two more attempts fit the budget, then qev gives up.
  std::filesystem::remove(core);
  writeText(core, "not a program");
  ASSERT_EQ(::kill(lastCorePid(*qev), SIGKILL), 0);
  ASSERT_TRUE(eventually([&] { return logHas(*qev, "native.mihomo.watch.gaveUp"); }, 60s))
      << qev->logText();
  EXPECT_EQ(countLog(*qev, "native.mihomo.watch.restart: "), 3u);
  EXPECT_TRUE(eventually([&] { return desktopMode() == "'none'"; }, 5s));
  const Json told = {{"event", "proxyState"},
                     {"payload", {{"connected", false}, {"reason", "coreStopped"}}}};
  EXPECT_TRUE(eventually([&] {
    const auto lines = qev->answers();
    return std::find(lines.begin(), lines.end(), told) != lines.end();
  }));
  // The user still wants to be connected: the next start tries again.
  EXPECT_EQ(settingsFile(*qev)["proxyEnabled"], true);
}

TEST_F(ProxyFlowTest, QuittingAmidASwitchOnOrACoreRestartAlwaysEndsOffWithNoCoreAndNoPlaintext) {
  {
    auto qev = start();
    ASSERT_EQ((*qev->call("1", "updateConfig", Json::array({subscribeLink()})))["result"], true);
  }
  std::mt19937 random(20261123);
  for (int round = 0; round < 6; ++round) {
    auto qev = start();
    // Running (its signal handlers in place) before the race begins; the log is shared by
    // the rounds.
    ASSERT_TRUE(eventually([&] {
      return countLog(*qev, "native.guard.started") == static_cast<std::size_t>(round) + 2;
    }));
    qev->send(Json{{"id", "s"}, {"name", "startProxy"}});
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 1500));
    qev->signal(SIGTERM);
    ASSERT_EQ(qev->waitExit(), 0) << "round " << round;
    EXPECT_EQ(desktopMode(), "'none'") << "round " << round << "\n" << qev->logText();
    EXPECT_TRUE(portFree(33210) && portFree(33212)) << "round " << round;
    EXPECT_FALSE(std::filesystem::exists(qev->dataFolder() / ".qevjs-runtime-config.yaml"));
    EXPECT_EQ(settingsFile(*qev)["proxyEnabled"], false) << "round " << round;
  }
}

}  // namespace
}  // namespace qev::test
