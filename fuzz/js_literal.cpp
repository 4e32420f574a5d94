// The literals the native side writes into the page's JavaScript: read back, a string literal
// gives the input (invalid bytes as U+FFFD) and a value's literal gives the value.

#include "base/json.h"
#include "base/utf8.h"
#include "bridge/literals.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qev;
  const std::string_view text = fuzz::textOf(data, size);

  // Every literal here is also JSON text, which the parser below reads strictly.
  const Json readBack = Json::parse(bridge::jsStringLiteral(text), nullptr, false);
  FUZZ_CHECK(readBack.is_string());
  const auto& value = readBack.get_ref<const std::string&>();
  FUZZ_CHECK(base::isValidUtf8(value));
  if (base::isValidUtf8(text)) FUZZ_CHECK(value == text);

  const Json parsed = base::parseJson(text);
  if (parsed.is_discarded()) return 0;
  const std::string literal = bridge::jsonLiteral(parsed);
  const Json again = Json::parse(literal, nullptr, false);
  FUZZ_CHECK(!again.is_discarded());
  if (literal != "null") FUZZ_CHECK(again == parsed);
  return 0;
}
