#include "controller/controller_reply.h"

namespace qev::controller {

std::optional<BridgeError> controllerChangeError(const Result<Json>& reply) {
  if (!reply) return reply.error();
  const Json& value = reply.value();
  if (value.is_object()) {
    const auto message = value.find("message");
    if (message != value.end() && message->is_string()) {
      return BridgeError{"Controller", 0, message->get<std::string>()};
    }
  }
  return std::nullopt;
}

}  // namespace qev::controller
