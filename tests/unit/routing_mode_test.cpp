#include "subscription/routing_mode.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace qev::subscription {
namespace {

struct ModeCase {
  std::string name;
  std::string label;
  std::optional<std::string> mode;
  friend void PrintTo(const ModeCase& c, std::ostream* os) { *os << c.name; }
};

class NormalizedModeTest : public ::testing::TestWithParam<ModeCase> {};

TEST_P(NormalizedModeTest, MapsLabelsToTheCoreMode) {
  EXPECT_EQ(normalizedMihomoMode(GetParam().label), GetParam().mode);
}

INSTANTIATE_TEST_SUITE_P(
    Canonical, NormalizedModeTest,
    ::testing::Values(ModeCase{"rule", "rule", "rule"}, ModeCase{"global", "global", "global"},
                      ModeCase{"direct", "direct", "direct"},
                      ModeCase{"capital_with_blanks", "  Global ", "global"},
                      ModeCase{"unicode_white_space", "\u3000DIRECT\n", "direct"},
                      ModeCase{"two_words_in_capitals", "GLOBAL MODE", "global"},
                      ModeCase{"plural_rules", "Rules", "rule"},
                      ModeCase{"rule_mode", "Rule Mode", "rule"},
                      ModeCase{"direct_mode", "direct mode", "direct"}),
    [](const auto& info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Labels, NormalizedModeTest,
    ::testing::Values(
        ModeCase{"zh_global", "全局", "global"}, ModeCase{"zh_global_mode", "全局模式", "global"},
        ModeCase{"tw_global", "全域", "global"}, ModeCase{"tw_global_mode", "全域模式", "global"},
        ModeCase{"ja_global", "グローバル", "global"},
        ModeCase{"ja_global_mode", "グローバルモード", "global"},
        ModeCase{"ko_global", "글로벌", "global"},
        ModeCase{"ko_global_mode", "글로벌 모드", "global"}, ModeCase{"zh_rule", "规则", "rule"},
        ModeCase{"zh_rule_mode", "规则模式", "rule"}, ModeCase{"tw_rule", "規則", "rule"},
        ModeCase{"tw_rule_mode", "規則模式", "rule"}, ModeCase{"ja_rule", "ルール", "rule"},
        ModeCase{"ja_rule_mode", "ルールモード", "rule"}, ModeCase{"ko_rule", "규칙", "rule"},
        ModeCase{"ko_rule_mode", "규칙 모드", "rule"}, ModeCase{"zh_direct", "直连", "direct"},
        ModeCase{"zh_direct_mode", "直连模式", "direct"}, ModeCase{"tw_direct", "直連", "direct"},
        ModeCase{"tw_direct_mode", "直連模式", "direct"},
        ModeCase{"ja_direct", "ダイレクト", "direct"},
        ModeCase{"ja_direct_mode", "ダイレクトモード", "direct"},
        ModeCase{"ko_direct", "직접", "direct"}, ModeCase{"ko_direct_mode", "직접 모드", "direct"},
        ModeCase{"label_trimmed", " \t规则\r\n", "rule"}),
    [](const auto& info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Unknown, NormalizedModeTest,
    ::testing::Values(ModeCase{"hyphenated", "rule-mode", std::nullopt},
                      ModeCase{"chinese_with_inner_blank", "全局 模式", std::nullopt},
                      ModeCase{"korean_without_blank", "글로벌모드", std::nullopt},
                      ModeCase{"korean_two_blanks", "규칙  모드", std::nullopt},
                      ModeCase{"no_plural_for_global", "globals", std::nullopt},
                      ModeCase{"no_plural_for_direct", "directs", std::nullopt},
                      ModeCase{"full_width_latin", "ＧＬＯＢＡＬ", std::nullopt},
                      ModeCase{"other_word", "auto", std::nullopt},
                      ModeCase{"empty", "", std::nullopt},
                      ModeCase{"white_space_only", " \n ", std::nullopt}),
    [](const auto& info) { return info.param.name; });

TEST(NormalizedModeTest, AbsentGivesNone) {
  EXPECT_EQ(normalizedMihomoMode(std::nullopt), std::nullopt);
}

struct ArgsCase {
  std::string name;
  Json args;
  std::optional<std::string> mode;
  friend void PrintTo(const ArgsCase& c, std::ostream* os) { *os << c.name; }
};

class RuntimeModeFromArgsTest : public ::testing::TestWithParam<ArgsCase> {};

TEST_P(RuntimeModeFromArgsTest, ReadsTheFirstArgument) {
  EXPECT_EQ(runtimeModeFromArgs(GetParam().args), GetParam().mode);
}

INSTANTIATE_TEST_SUITE_P(
    Table, RuntimeModeFromArgsTest,
    ::testing::Values(
        ArgsCase{"string", Json::array({" Global "}), "global"},
        ArgsCase{"only_first_counts", Json::array({"bogus", "rule"}), std::nullopt},
        ArgsCase{"unknown_mode_keeps_searching",
                 Json::parse(R"([{"mode": "bogus", "routing_mode": "直连"}])"), "direct"},
        ArgsCase{"non_string_value_skipped",
                 Json::parse(R"([{"mode": 1, "routingMode": "rules"}])"), "rule"},
        ArgsCase{
            "key_order_wins",
            Json::parse(R"([{"routing_mode": "direct", "routingMode": "global", "mode": "rule"}])"),
            "rule"},
        ArgsCase{"camel_case_before_snake_case",
                 Json::parse(R"([{"routing_mode": "direct", "routingMode": "글로벌"}])"), "global"},
        ArgsCase{"keys_case_sensitive", Json::parse(R"([{"Mode": "global"}])"), std::nullopt},
        ArgsCase{"object_without_mode", Json::parse(R"([{"tun": true}, "global"])"), std::nullopt},
        ArgsCase{"number", Json::array({42}), std::nullopt},
        ArgsCase{"null", Json::array({nullptr}), std::nullopt},
        ArgsCase{"nested_array", Json::array({Json::array({"global"})}), std::nullopt},
        ArgsCase{"empty_list", Json::array(), std::nullopt},
        ArgsCase{"not_a_list", Json("global"), std::nullopt}),
    [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace qev::subscription
