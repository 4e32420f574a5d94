// The redaction the diagnostic log relies on: a secret planted where the log promises to mask
// it never survives, whatever text surrounds it.

#include <fuzzer/FuzzedDataProvider.h>

#include "base/json.h"
#include "base/redaction.h"
#include "fuzz_check.h"

namespace {

constexpr std::string_view kSecret = "Zq7secretVx9";

bool leaks(std::string_view logged) {
  return logged.find(kSecret) != std::string_view::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qev;
  FuzzedDataProvider input(data, size);
  const std::string before = input.ConsumeRandomLengthString(512);
  const std::string after = input.ConsumeRemainingBytesAsString();
  if (leaks(before) || leaks(after)) return 0;
  const std::string secret(kSecret);

  // Free text: the forms the log promises to mask, between arbitrary text.
  for (const std::string& planted :
       {" token=" + secret, " password=" + secret, " Bearer " + secret,
        " https://user:" + secret + "@panel.example/", " Authorization: " + secret + "\n"}) {
    FUZZ_CHECK(!leaks(base::redactFreeText(before + planted + " " + after)));
    FUZZ_CHECK(!leaks(base::redactURLString(before + planted + " " + after)));
  }

  // JSON: sensitive keys at any depth inside whatever value the input is.
  Json value = base::parseJson(after);
  if (value.is_discarded()) value = after;
  const Json tree = {{"token", secret},
                     {"nested", {{"data", value}, {"password", secret}}},
                     {"list", Json::array({value, {{"auth_data", secret}}})}};
  FUZZ_CHECK(!leaks(base::describeValue(base::redactJSON(tree))));
  FUZZ_CHECK(!leaks(base::bridgeArgsPreview(Json::array({tree, value}))));
  base::redactedJSONPreview(after);
  base::redactURLs(value);
  return 0;
}
