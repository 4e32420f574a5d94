#include "subscription/yaml_lines.h"

#include <gtest/gtest.h>
#include <re2/re2.h>

#include <array>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "base/strings.h"

namespace qev::subscription {
namespace {

struct TextCase {
  std::string name;
  std::string input;
  std::string expected;
  friend void PrintTo(const TextCase& c, std::ostream* os) { *os << c.name; }
};

auto caseName = [](const auto& info) { return info.param.name; };

// ---- flowMapName ----

struct NameCase {
  std::string name;
  std::string line;
  std::optional<std::string> expected;
  friend void PrintTo(const NameCase& c, std::ostream* os) { *os << c.name; }
};

class FlowMapNameTest : public ::testing::TestWithParam<NameCase> {};

TEST_P(FlowMapNameTest, ReadsTheFirstNameValue) {
  const auto name = flowMapName(GetParam().line);
  ASSERT_EQ(name.has_value(), GetParam().expected.has_value());
  if (name) {
    EXPECT_EQ(*name, *GetParam().expected);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, FlowMapNameTest,
    ::testing::Values(
        NameCase{"plain", "- {name: HK 01, type: ss}", "HK 01"},
        NameCase{"no_blank_after_colon", "- {name:HK, type: ss}", "HK"},
        NameCase{"single_quotes_keep_comma", "- {name: 'a, b', type: ss}", "a, b"},
        NameCase{"unquoted_cut_at_comma", "- {name: a, b, type: ss}", "a"},
        NameCase{"double_quotes_emoji", "- {name: \"🇯🇵 東京 01\", server: x}", "🇯🇵 東京 01"},
        NameCase{"other_quote_inside", "- {name: \"it's\", x: 1}", "it's"},
        NameCase{"doubled_quote_ends_early", "- {name: 'it''s', x: 1}", "it"},
        NameCase{"braces_inside_quotes", "- {name: 'a{b}c', opts: {x: 1}}", "a{b}c"},
        NameCase{"last_key_cut_at_brace", "- {type: ss, name: 末尾}", "末尾"},
        NameCase{"trailing_blanks_trimmed", "- {name: x  , y: 1}", "x"},
        NameCase{"unicode_space_before_value", "- {name:\u3000x}", "x"},
        NameCase{"key_ending_in_name_wins", "- {nickname: first, name: second}", "first"},
        NameCase{"unterminated_quote_is_bare", "- {name: 'open, type: ss}", "'open"},
        NameCase{"lone_quote_before_brace", "- {name: '}", "'"},
        NameCase{"empty_quotes", "- {name: \"\", type: ss}", ""},
        NameCase{"blank_value_is_empty", "- {name: , type: ss}", ""},
        NameCase{"blank_value_at_end", "name:   ", ""},
        NameCase{"no_value_tries_next_key", "- {name:, alias-name: two}", "two"},
        NameCase{"no_value_at_all", "- {name:}", std::nullopt},
        NameCase{"key_at_end", "name:", std::nullopt},
        NameCase{"no_key", "- {type: ss, server: a}", std::nullopt},
        NameCase{"key_is_case_sensitive", "- {Name: x}", std::nullopt}),
    caseName);

// The same pattern run by a regular-expression engine with leftmost-first semantics; \s is
// spelled out as Unicode white space.
std::optional<std::string> referenceFlowMapName(const std::string& line) {
  static const RE2 pattern(
      "(name:[\\t\\n\\x0B\\f\\r \\x{85}\\x{A0}\\x{1680}\\x{2000}-\\x{200A}\\x{2028}\\x{2029}"
      "\\x{202F}\\x{205F}\\x{3000}]*(?:'[^']*'|\"[^\"]*\"|[^,}]+))");
  std::string match;
  if (!RE2::PartialMatch(line, pattern, &match)) return std::nullopt;
  const std::string_view value = base::trimWhitespace(std::string_view(match).substr(5));
  if (value.size() >= 2 && (value.front() == '\'' || value.front() == '"') &&
      value.back() == value.front()) {
    return std::string(value.substr(1, value.size() - 2));
  }
  return std::string(value);
}

TEST(FlowMapNameTest, AgreesWithTheRegularExpressionOnRandomLines) {
  ASSERT_EQ(referenceFlowMapName("- {name:, x: 1, name:\u3000'a, b'}"), "a, b");
  ASSERT_EQ(referenceFlowMapName("name: ,"), "");
  const std::array<std::string_view, 18> pieces = {
      "name:", "name", ":", " ", "\t",     "'",      "\"",     ",",      "}",
      "{",     "a",    "é", "🚀", "\u00a0", "\u3000", "\u2028", "\u0085", "x y"};
  std::mt19937 random(20240611);
  for (int round = 0; round < 20000; ++round) {
    std::string line;
    const int count = static_cast<int>(random() % 14);
    for (int i = 0; i < count; ++i) line += pieces[random() % pieces.size()];
    const auto expected = referenceFlowMapName(line);
    const auto actual = flowMapName(line);
    ASSERT_EQ(actual.has_value(), expected.has_value()) << "line: [" << line << "]";
    if (actual) {
      ASSERT_EQ(std::string(*actual), *expected) << "line: [" << line << "]";
    }
  }
}

// ---- unquoteYamlScalar ----

class UnquoteTest : public ::testing::TestWithParam<TextCase> {};

TEST_P(UnquoteTest, RemovesOnePairOfMatchingQuotes) {
  EXPECT_EQ(unquoteYamlScalar(GetParam().input), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, UnquoteTest,
    ::testing::Values(TextCase{"single", "  'abc'  ", "abc"}, TextCase{"double", "\"abc\"", "abc"},
                      TextCase{"inner_space_kept", "' a '", " a "},
                      TextCase{"mixed_quotes_kept", "'abc\"", "'abc\""},
                      TextCase{"one_quote_stays", "'", "'"}, TextCase{"empty_quotes", "''", ""},
                      TextCase{"doubled_quote_stays_doubled", "'it''s'", "it''s"},
                      TextCase{"escape_not_interpreted", "\"a\\\"b\"", "a\\\"b"},
                      TextCase{"only_one_pair", "''x''", "'x'"},
                      TextCase{"unicode_white_space", "\u3000\"名前\"\u2028", "名前"},
                      TextCase{"plain", "  plain text ", "plain text"}),
    caseName);

// ---- splitFlowList ----

struct ListCase {
  std::string name;
  std::string input;
  std::vector<std::string> expected;
  friend void PrintTo(const ListCase& c, std::ostream* os) { *os << c.name; }
};

class SplitFlowListTest : public ::testing::TestWithParam<ListCase> {};

TEST_P(SplitFlowListTest, SplitsAtCommasOutsideQuotes) {
  const auto items = splitFlowList(GetParam().input);
  EXPECT_EQ(std::vector<std::string>(items.begin(), items.end()), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SplitFlowListTest,
    ::testing::Values(
        ListCase{"plain", "A,B, C", {"A", "B", "C"}},
        ListCase{"quotes_kept_with_commas", "'a,b', \"x, y\",z", {"'a,b'", "\"x, y\"", "z"}},
        ListCase{"other_quote_inside_is_plain", "'it\"s, ok', b", {"'it\"s, ok'", "b"}},
        ListCase{"inner_empty_kept", "a,,b", {"a", "", "b"}},
        ListCase{"trailing_empty_dropped", "a, b, ", {"a", "b"}},
        ListCase{"blank_only", " , ", {""}}, ListCase{"empty", "", {}},
        ListCase{"tabs_trimmed", "\ta\t,\tb ", {"a", "b"}},
        ListCase{"brackets_not_counted", "[a, b], {c: d, e: f}", {"[a", "b]", "{c: d", "e: f}"}},
        ListCase{"unterminated_quote_swallows", "'open, x, y", {"'open, x, y"}},
        ListCase{"non_ascii", "🇭🇰 香港,日本 02", {"🇭🇰 香港", "日本 02"}}),
    caseName);

// ---- filterFlowProxyList ----

class FilterFlowProxyListTest : public ::testing::TestWithParam<TextCase> {};

TEST_P(FilterFlowProxyListTest, DropsHiddenMembers) {
  EXPECT_EQ(filterFlowProxyList(GetParam().input), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, FilterFlowProxyListTest,
    ::testing::Values(
        TextCase{"hidden_between", "  - {name: G, type: select, proxies: [A,Auto,B]}",
                 "  - {name: G, type: select, proxies: [A, B]}"},
        TextCase{"quoted_member_with_comma", "- {name: G, proxies: [\"x, y\", 'DIRECT', z]}",
                 "- {name: G, proxies: [\"x, y\", z]}"},
        TextCase{"quoted_hidden_with_spaces", "- {name: G, proxies: [ \" Auto \" , HK]}",
                 "- {name: G, proxies: [HK]}"},
        TextCase{"all_hidden", "- {name: G, proxies: [Auto, 自动选择, 剩余流量：1 GB]}",
                 "- {name: G, proxies: []}"},
        TextCase{"member_with_colon", "- {proxies: [🇭🇰 香港 01, Expires: 2030-01-01, 🇯🇵 日本]}",
                 "- {proxies: [🇭🇰 香港 01, 🇯🇵 日本]}"},
        TextCase{"canonical_spacing", "- {name: G, proxies: [A,   B,C]}",
                 "- {name: G, proxies: [A, B, C]}"},
        TextCase{"inner_empty_member_kept", "- {proxies: [A,,B,]}", "- {proxies: [A, , B]}"},
        TextCase{"only_first_list", "- {proxies: [A, Auto], use: [x], proxies: [Auto]}",
                 "- {proxies: [A], use: [x], proxies: [Auto]}"},
        TextCase{"list_on_next_line", "- {name: G, proxies:", "- {name: G, proxies:"},
        TextCase{"no_blank_after_colon", "- {proxies:[A, Auto]}", "- {proxies:[A, Auto]}"},
        TextCase{"key_case_sensitive", "- {Proxies: [A, Auto]}", "- {Proxies: [A, Auto]}"},
        TextCase{"unclosed_list", "- {proxies: [A, Auto}", "- {proxies: [A, Auto}"},
        TextCase{"empty", "", ""}),
    caseName);

// ---- normalizeFlowProxyLine ----

class NormalizeFlowProxyLineTest : public ::testing::TestWithParam<TextCase> {};

TEST_P(NormalizeFlowProxyLineTest, AddsAFingerprintWhereNeeded) {
  EXPECT_EQ(normalizeFlowProxyLine(GetParam().input), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, NormalizeFlowProxyLineTest,
    ::testing::Values(
        TextCase{"reality_nested_braces",
                 "  - {name: v, type: vless, tls: true, reality-opts: {public-key: k}}",
                 "  - {name: v, type: vless, tls: true, reality-opts: {public-key: k}, "
                 "client-fingerprint: chrome }"},
        TextCase{"vless_without_reality", "- {name: v, type: vless, tls: true}",
                 "- {name: v, type: vless, tls: true}"},
        TextCase{"reality_without_tls", "- {type: vless, reality-opts: {a: b}}",
                 "- {type: vless, reality-opts: {a: b}}"},
        TextCase{"anytls", "- {name: 東京, type: anytls, server: s}",
                 "- {name: 東京, type: anytls, server: s, client-fingerprint: chrome }"},
        TextCase{"upper_case_keys", "- {NAME: A, TYPE: AnyTLS}",
                 "- {NAME: A, TYPE: AnyTLS, client-fingerprint: chrome }"},
        TextCase{"trailing_comma", "- {name: a, type: anytls, }",
                 "- {name: a, type: anytls,  client-fingerprint: chrome, }"},
        TextCase{"text_after_last_brace", "- {type: anytls} # note",
                 "- {type: anytls, client-fingerprint: chrome } # note"},
        TextCase{"fingerprint_present", "- {type: anytls, client-fingerprint: firefox}",
                 "- {type: anytls, client-fingerprint: firefox}"},
        TextCase{"fingerprint_present_other_case", "- {type: anytls, Client-Fingerprint: ios}",
                 "- {type: anytls, Client-Fingerprint: ios}"},
        TextCase{"no_blank_after_colon", "- {type:anytls}", "- {type:anytls}"},
        TextCase{"no_closing_brace", "- {type: anytls", "- {type: anytls"},
        TextCase{"other_type", "- {name: s, type: ss, tls: true}",
                 "- {name: s, type: ss, tls: true}"}),
    caseName);

// ---- removeTopLevelYamlBlocks ----

class RemoveTopLevelBlocksTest : public ::testing::TestWithParam<TextCase> {};

TEST_P(RemoveTopLevelBlocksTest, RemovesTunAndDnsSections) {
  constexpr std::array<std::string_view, 2> names = {"tun", "dns"};
  EXPECT_EQ(removeTopLevelYamlBlocks(GetParam().input, names), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, RemoveTopLevelBlocksTest,
    ::testing::Values(
        TextCase{
            "both_sections",
            "tun:\n  enable: true\n  stack: gvisor\ndns:\n  enable: true\nproxies:\n  - {name: a}",
            "proxies:\n  - {name: a}"},
        TextCase{"column_zero_dash_ends_section", "dns:\n- 1.1.1.1\n  x: 1\nmode: rule",
                 "- 1.1.1.1\n  x: 1\nmode: rule"},
        TextCase{"comment_ends_section", "tun:\n  x: 1\n# note\n  y: 2", "# note\n  y: 2"},
        TextCase{"header_with_trailing_blanks", "dns:   \n  a: 1\nb: 2", "b: 2"},
        TextCase{"tab_indented_body", "dns:\n\tx: 1\nb: 2", "b: 2"},
        TextCase{"inline_value", "tun: {enable: true}\nmode: rule", "mode: rule"},
        TextCase{"key_without_colon", "tun\n  x\nb: 2", "b: 2"},
        TextCase{"leading_colons_skipped", "::dns: x\n  y\nb: 2", "b: 2"},
        TextCase{"case_sensitive", "Dns:\n  a: 1", "Dns:\n  a: 1"},
        TextCase{"longer_key_kept", "tunnel:\n  a: 1\ndns-extra: 2",
                 "tunnel:\n  a: 1\ndns-extra: 2"},
        TextCase{"indented_key_not_a_section", "a:\n  dns:\n    x: 1", "a:\n  dns:\n    x: 1"},
        TextCase{"empty_lines_inside_dropped_outside_kept",
                 "a: 1\n\ntun:\n  x: 1\n\n  y: 2\nb: 2\n", "a: 1\n\nb: 2\n"},
        TextCase{"final_newline_inside_section_dropped", "a: 1\ntun:\n  x: 1\n", "a: 1"},
        TextCase{"no_final_newline", "a: 1\nb: 2", "a: 1\nb: 2"},
        TextCase{"crlf_gives_empty_lines", "tun:\r\n  x: 1\r\nmode: rule\r\n", "mode: rule\n\n"},
        TextCase{"unicode_line_separators", "a: 1\u2028tun:\u0085  x\u2029b: 2", "a: 1\nb: 2"},
        TextCase{"everything_removed", "tun:\n  x: 1", ""}),
    caseName);

TEST(RemoveTopLevelBlocksTest, WithoutNamesOnlyNormalizesLineEnds) {
  EXPECT_EQ(removeTopLevelYamlBlocks("tun:\r\n  x\rb", {}), "tun:\n\n  x\nb");
}

// ---- sanitizeSubscriptionYaml ----

class SanitizeTest : public ::testing::TestWithParam<TextCase> {};

TEST_P(SanitizeTest, FiltersAndNormalizesFlowEntries) {
  EXPECT_EQ(sanitizeSubscriptionYaml(GetParam().input), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SanitizeTest,
    ::testing::Values(
        TextCase{
            "hidden_proxy_dropped_indent_kept",
            "proxies:\n  - {name: 剩余流量：100 GB, type: ss}\n    - {name: \"🇭🇰 香港\", type: "
            "anytls}\n",
            "proxies:\n    - {name: \"🇭🇰 香港\", type: anytls, client-fingerprint: chrome }\n"},
        TextCase{"inline_value_keeps_section",
                 "proxies:\n  - {name: a, type: ss}\nmode: rule\n  - {name: Auto, type: ss}\n  - "
                 "{name: b, type: anytls}",
                 "proxies:\n  - {name: a, type: ss}\nmode: rule\n  - {name: b, type: anytls, "
                 "client-fingerprint: chrome }"},
        TextCase{"column_zero_entry", "proxies:\n- {name: Expires 2030, type: ss}\n- {name: x}",
                 "proxies:\n- {name: x}"},
        TextCase{"groups_filtered",
                 "proxy-groups:\n  - {name: 自动选择, type: url-test, proxies: [a, b]}\n  - {name: "
                 "SELECT, type: select, proxies: [Auto,🇭🇰 香港,DIRECT]}",
                 "proxy-groups:\n  - {name: SELECT, type: select, proxies: [🇭🇰 香港]}"},
        TextCase{"group_entry_not_normalized", "proxy-groups:\n  - {name: g, type: anytls}",
                 "proxy-groups:\n  - {name: g, type: anytls}"},
        TextCase{"proxy_entry_members_not_filtered", "proxies:\n  - {name: p, proxies: [Auto]}",
                 "proxies:\n  - {name: p, proxies: [Auto]}"},
        TextCase{"block_style_passes",
                 "proxies:\n  - name: Auto\n    type: ss\n  -\n    name: Expires 2030\n",
                 "proxies:\n  - name: Auto\n    type: ss\n  -\n    name: Expires 2030\n"},
        TextCase{"other_sections_untouched", "rules:\n  - {name: Auto}\n  - MATCH,DIRECT",
                 "rules:\n  - {name: Auto}\n  - MATCH,DIRECT"},
        TextCase{"indented_header_not_a_section", "a:\n  proxies:\n    - {name: Auto}",
                 "a:\n  proxies:\n    - {name: Auto}"},
        TextCase{"header_with_blank_before_colon", "proxies :\n  - {name: Auto}",
                 "proxies :\n  - {name: Auto}"},
        TextCase{"section_ends_at_next_header",
                 "proxies:\n  - {name: a}\nrule-providers:\n  - {name: Auto}",
                 "proxies:\n  - {name: a}\nrule-providers:\n  - {name: Auto}"},
        TextCase{"unnamed_entry_kept", "proxies:\n  - {type: anytls}",
                 "proxies:\n  - {type: anytls, client-fingerprint: chrome }"},
        TextCase{"crlf", "proxies:\r\n  - {name: Auto}\r\n  - {name: a}\r\n",
                 "proxies:\n\n\n  - {name: a}\n\n"},
        TextCase{"no_final_newline_stays_so", "proxies:\n  - {name: a}", "proxies:\n  - {name: a}"},
        TextCase{"empty", "", ""}),
    caseName);

// ---- ensureRule ----

constexpr std::string_view kRule = "AND,((NETWORK,UDP),(DST-PORT,443)),REJECT";

// Writes the rule's text where a test text says R.
std::string withRule(std::string_view text) {
  return base::replaceAll(text, "R", kRule);
}

class EnsureRuleTest : public ::testing::TestWithParam<TextCase> {};

TEST_P(EnsureRuleTest, PlacesTheRuleFirstAndOnce) {
  EXPECT_EQ(ensureRule(kRule, withRule(GetParam().input)), withRule(GetParam().expected));
}

INSTANTIATE_TEST_SUITE_P(
    Table, EnsureRuleTest,
    ::testing::Values(
        TextCase{"moved_from_third_place", "rules:\n  - A\n  - B\n  - R\n  - C",
                 "rules:\n  - R\n  - A\n  - B\n  - C"},
        TextCase{"copy_elsewhere_removed", "g:\n  - R\n\t- R  \nrules:\n  - X",
                 "g:\nrules:\n  - R\n  - X"},
        TextCase{"near_copy_kept", "rules:\n  -  R\n  - R,x", "rules:\n  - R\n  -  R\n  - R,x"},
        TextCase{"header_last_line", "x: 1\nrules:", "x: 1\nrules:\n    - R"},
        TextCase{"header_last_after_removal", "rules:\n  - R", "rules:\n    - R"},
        TextCase{"header_then_key", "rules:\nmode: rule", "rules:\n- R\nmode: rule"},
        TextCase{"empty_lines_kept_before_item", "rules:\n\n  \n\t- A",
                 "rules:\n\n  \n\t- R\n\t- A"},
        TextCase{"only_blank_lines_below", "rules:\n   \n", "rules:\n   - R\n   \n"},
        TextCase{"final_newline_below_header", "rules:\n", "rules:\n- R\n"},
        TextCase{"indented_header_counts", "  rules:  \n    - A", "  rules:  \n    - R\n    - A"},
        TextCase{"first_header_wins", "rules:\n  - A\nrules:\n  - B",
                 "rules:\n  - R\n  - A\nrules:\n  - B"},
        TextCase{"unicode_space_line_is_blank", "rules:\n\u3000\n - A",
                 "rules:\n\u3000\n - R\n - A"},
        TextCase{"crlf", "rules:\r\n  - A\r\n", "rules:\n\n  - R\n  - A\n\n"},
        TextCase{"no_rules_no_final_newline", "x: 1", "x: 1\nrules:\n  - R\n"},
        TextCase{"no_rules_final_newline", "x: 1\n", "x: 1\nrules:\n  - R\n"},
        TextCase{"header_with_comment_does_not_count", "rules: # c\n  - A",
                 "rules: # c\n  - A\nrules:\n  - R\n"},
        TextCase{"inline_empty_list_does_not_count", "rules: []", "rules: []\nrules:\n  - R\n"},
        TextCase{"empty_text", "", "\nrules:\n  - R\n"},
        TextCase{"only_copies", "- R\n  - R", "\nrules:\n  - R\n"}),
    caseName);

TEST(EnsureRuleTest, RepeatingOnItsOwnOutputChangesNothing) {
  for (std::string_view text : {"rules:\n  - A\n  - R", "x: 1\nrules:", "rules:\n\n- A\n",
                                "rules:\r\n\t- A", "rules:\n   \n", "a:\n  - R\nrules:\nb: 1"}) {
    const std::string once = ensureRule(kRule, withRule(text));
    EXPECT_EQ(ensureRule(kRule, once), once) << text;
  }
}

TEST(EnsureRuleTest, AppendedListSettlesAfterTheSecondPass) {
  // The new list is indented by two blanks; a second pass finds its header with only the
  // final empty line below and copies that line's (absent) indentation. The rule stays the
  // only and first item, and from then on the text no longer changes.
  const std::string once = ensureRule(kRule, "x: 1");
  const std::string twice = ensureRule(kRule, once);
  EXPECT_EQ(twice, withRule("x: 1\nrules:\n- R\n"));
  EXPECT_EQ(ensureRule(kRule, twice), twice);
}

}  // namespace
}  // namespace qev::subscription
