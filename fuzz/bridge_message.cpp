// A message of the page as the shells receive it: parsed, validated, its arguments read the
// ways the commands read them, and previewed for the log without the planted password.

#include "base/json.h"
#include "base/redaction.h"
#include "bridge/commands.h"
#include "fuzz_check.h"
#include "proxies/selection_args.h"

namespace {
constexpr std::string_view kPlanted = "planted-Pa55word-0f9e";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qev;
  const std::string_view text = fuzz::textOf(data, size);
  const Json body = base::parseJson(text);
  if (body.is_discarded()) return 0;
  auto message = bridge::parseBridgeMessage(body);
  if (!message) return 0;
  FUZZ_CHECK(message->args.is_array());

  bridge::boolArg(base::firstArg(message->args));
  const auto choice = proxies::parseSetProxyArgs(message->args);
  FUZZ_CHECK(!choice.group.empty());

  if (text.find(kPlanted) != std::string_view::npos) return 0;
  message->args.push_back({{"password", kPlanted}});
  const std::string preview = base::bridgeArgsPreview(message->args);
  FUZZ_CHECK(preview.find(kPlanted) == std::string::npos);
  return 0;
}
