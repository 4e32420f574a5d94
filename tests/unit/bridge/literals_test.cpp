#include "bridge/literals.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace qev::bridge {
namespace {

struct StringCase {
  std::string name;
  std::string input;
  std::string expected;
  // Names the case in test listings instead of dumping its bytes.
  friend void PrintTo(const StringCase& c, std::ostream* os) { *os << c.name; }
};

class JsStringLiteralTest : public ::testing::TestWithParam<StringCase> {};

TEST_P(JsStringLiteralTest, EscapesByCodePoint) {
  EXPECT_EQ(jsStringLiteral(GetParam().input), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, JsStringLiteralTest,
    ::testing::Values(StringCase{"empty", "", R"("")"},
                      StringCase{"quote_backslash_tab_nul_ls",
                                 std::string("\"\\\t") + std::string(1, '\0') + "\u2028",
                                 R"("\"\\\t\u0000\u2028")"},
                      StringCase{"paragraph_separator", "a\u2029b", R"("a\u2029b")"},
                      StringCase{"short_escapes", "\b\f\n\r", R"("\b\f\n\r")"},
                      StringCase{"unit_separator_lowercase_hex", "\x1f\x1b", R"("\u001f\u001b")"},
                      StringCase{"delete_solidus_apostrophe_kept", "\x7f/'", "\"\x7f/'\""},
                      StringCase{"non_ascii_kept", "节点 🚀", "\"节点 🚀\""},
                      StringCase{"invalid_bytes_replaced",
                                 "a\xff"
                                 "b\xc3",
                                 "\"a\xEF\xBF\xBD"
                                 "b\xEF\xBF\xBD\""},
                      StringCase{"overlong_rejected", "\xc0\xaf", "\"\xEF\xBF\xBD\xEF\xBF\xBD\""}),
    [](const auto& info) { return info.param.name; });

TEST(JsonNestingTest, CountsOnlyBracketsOutsideStrings) {
  const std::vector<std::pair<std::string, bool>> cases = {
      {"[[1]]", true},         {"[[[1]]]", false},           {R"(["[[[[", {"a": "{{{"}])", true},
      {R"(["\"[[[["])", true}, {R"(["\\", [[[]]]])", false}, {"]]]]][[", true},
  };
  for (const auto& [text, within] : cases) {
    EXPECT_EQ(base::jsonNestingWithin(text, 2), within) << text;
  }
  EXPECT_TRUE(base::parseJson("[" + std::string(300, '[') + std::string(301, ']')).is_discarded());
  EXPECT_EQ(base::parseJson(R"({"a": [1]})"), Json::parse(R"({"a": [1]})"));
}

TEST(JsonLiteralTest, ScalarsAndContainers) {
  EXPECT_EQ(jsonLiteral(true), "true");
  EXPECT_EQ(jsonLiteral(false), "false");
  EXPECT_EQ(jsonLiteral(8), "8");
  EXPECT_EQ(jsonLiteral(1.5), "1.5");
  EXPECT_EQ(jsonLiteral("x\u2028"), R"("x\u2028")");
  EXPECT_EQ(jsonLiteral(Json{{"ok", true}}), R"({"ok":true})");
  EXPECT_EQ(jsonLiteral(Json::array({1, "a", nullptr})), R"([1,"a",null])");
  EXPECT_EQ(jsonLiteral(nullptr), "null");
}

TEST(JsonLiteralTest, AnythingThatIsNotValidJsonIsNull) {
  EXPECT_EQ(jsonLiteral(std::nan("")), "null");
  EXPECT_EQ(jsonLiteral(Json{{"x", std::numeric_limits<double>::infinity()}}), "null");
  EXPECT_EQ(jsonLiteral(Json{{"x", "bad\xff"}}), "null");
  EXPECT_EQ(jsonLiteral(Json{{"bad\xfe", 1}}), "null");
  EXPECT_EQ(jsonLiteral(Json::array({Json::binary({1, 2})})), "null");
  EXPECT_EQ(jsonLiteral("bad\xff"), "null");
}

}  // namespace
}  // namespace qev::bridge
