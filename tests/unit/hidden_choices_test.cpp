#include "proxies/hidden_choices.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qev::proxies {
namespace {

struct NameCase {
  std::string name;
  std::string input;
  bool hidden;
  friend void PrintTo(const NameCase& c, std::ostream* os) { *os << c.name; }
};

class HiddenChoiceTest : public ::testing::TestWithParam<NameCase> {};

TEST_P(HiddenChoiceTest, DecidesByNameAlone) {
  EXPECT_EQ(isHiddenProxyChoice(GetParam().input), GetParam().hidden);
}

INSTANTIATE_TEST_SUITE_P(
    Table, HiddenChoiceTest,
    ::testing::Values(NameCase{"auto_trimmed", "  Auto\t", true},
                      NameCase{"auto_unicode_spaces", "\u3000Auto\u00a0\n", true},
                      NameCase{"auto_lower_case", "auto", false},
                      NameCase{"auto_select_2_not_exact", "Auto Select 2", false},
                      NameCase{"exact_name_is_no_prefix", "Fallback HK", false},
                      NameCase{"korean_exact_with_inner_blank", "자동 선택", true},
                      NameCase{"korean_without_blank", "자동선택", false},
                      NameCase{"japanese_fallback", "フェイルオーバー", true},
                      NameCase{"traditional_auto", "自動選擇", true},
                      NameCase{"direct", "DIRECT", true}, NameCase{"reject", "REJECT", true},
                      NameCase{"direct_lower_case", "direct", false},
                      NameCase{"other_builtin_outbounds_visible", "REJECT-DROP", false},
                      NameCase{"pass_visible", "PASS", false},
                      NameCase{"global_visible", "GLOBAL", false},
                      NameCase{"expires_with_date", "Expires: 2030-01-01", true},
                      NameCase{"remaining_traffic_amount", "剩余流量：99.5 GB", true},
                      NameCase{"traditional_next_reset", "距離下次重置剩餘：12 天", true},
                      NameCase{"reset_prefix_of_word", "Resetting soon", true},
                      NameCase{"japanese_plan_limit", "プラン期限：2030/01/01", true},
                      NameCase{"korean_expiry", "만료 2030-01-01", true},
                      NameCase{"korean_remaining", "남은 트래픽: 10GB", true},
                      NameCase{"prefix_after_spaces", "  Plan Expires 2030", true},
                      NameCase{"prefix_not_at_start", "HK Expires", false},
                      NameCase{"prefix_case_sensitive", "expires 2030", false},
                      NameCase{"emoji_node", "🇭🇰 香港 01", false}, NameCase{"empty", "", false},
                      NameCase{"only_white_space", " \t\u3000\n", false}),
    [](const auto& info) { return info.param.name; });

TEST(HiddenChoiceTest, EveryListedNameIsHidden) {
  const std::vector<std::string> exact = {"自动选择", "自動選擇", "Auto Select",      "Automatic",
                                          "Auto",     "自動選択", "자동 선택",        "故障转移",
                                          "故障轉移", "Fallback", "フェイルオーバー", "장애 조치",
                                          "DIRECT",   "REJECT"};
  const std::vector<std::string> prefixes = {
      "剩余流量",    "剩餘流量",          "距离下次重置", "距離下次重置", "下次重置",
      "套餐到期",    "Remaining Traffic", "Next Reset",   "Reset",        "Plan Expires",
      "Expires",     "残り通信量",        "次回リセット", "プラン期限",   "有効期限",
      "남은 트래픽", "다음 초기화",       "플랜 만료",    "만료"};
  for (const auto& name : exact) {
    EXPECT_TRUE(isHiddenProxyChoice(name)) << name;
    // Exact names hide only themselves: a suffix makes a visible name.
    EXPECT_FALSE(isHiddenProxyChoice(name + " 2")) << name;
  }
  for (const auto& prefix : prefixes) {
    EXPECT_TRUE(isHiddenProxyChoice(prefix)) << prefix;
    EXPECT_TRUE(isHiddenProxyChoice(prefix + "：2030-01-01 12GB")) << prefix;
    EXPECT_FALSE(isHiddenProxyChoice("x" + prefix)) << prefix;
  }
}

TEST(FilteredProxyChoicesTest, KeepsVisibleNamesInOrderWithDuplicates) {
  const std::vector<std::string> names = {"HK 01", "Auto",     "JP 02", "剩余流量：1 GB",
                                          "HK 01", " DIRECT ", "auto"};
  EXPECT_EQ(filteredProxyChoices(names),
            (std::vector<std::string>{"HK 01", "JP 02", "HK 01", "auto"}));
  EXPECT_TRUE(filteredProxyChoices({}).empty());
  EXPECT_TRUE(filteredProxyChoices({"Auto", "Fallback"}).empty());
}

}  // namespace
}  // namespace qev::proxies
