// The tray menu every shell draws: its texts in the page's language, the choices it checks and
// the label beside the icon.

#include <gtest/gtest.h>

#include "app/tray_menu.h"

namespace qev::app {
namespace {

std::vector<std::string> texts(const TrayState& state) {
  std::vector<std::string> out;
  for (const auto& entry : trayEntries(state)) {
    if (entry.kind == TrayEntry::Kind::kChoice && entry.checked) out.push_back("* " + entry.text);
    if (entry.kind != TrayEntry::Kind::kSeparator && !entry.checked) out.push_back(entry.text);
  }
  return out;
}

TEST(TrayMenuTest, EntriesFollowTheStateInBothLanguages) {
  EXPECT_EQ(texts({}), (std::vector<std::string>{"连接", "* 规则模式", "全局模式", "直连模式",
                                                 "未选择节点", "显示窗口", "退出"}));
  const TrayState english{true, "global", "HK 01", "en", std::nullopt};
  EXPECT_EQ(texts(english), (std::vector<std::string>{"Disconnect", "Rule", "* Global", "Direct",
                                                      "Node: HK 01", "Show Window", "Quit"}));
  EXPECT_EQ(texts({false, "direct", "", "fr", std::nullopt})[3], "* 直连模式");
}

TEST(TrayMenuTest, LabelShowsTheSpeedOnlyWhileConnected) {
  const std::pair<std::uint64_t, std::uint64_t> rate{512, 3 * 1024 * 1024 + 300 * 1024};
  EXPECT_EQ(trayLabel({true, "rule", "", "en", rate}), "↑ 512 B/s ↓ 3.3 MB/s");
  EXPECT_EQ(trayLabel({true, "rule", "", "en", std::pair{20480ull, 0ull}}), "↑ 20 KB/s ↓ 0 B/s");
  EXPECT_EQ(trayLabel({false, "rule", "", "en", rate}), "QEV");
  EXPECT_EQ(trayLabel({true, "rule", "", "en", std::nullopt}), "QEV");
}

}  // namespace
}  // namespace qev::app
