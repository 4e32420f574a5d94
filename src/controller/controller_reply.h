#pragma once

#include <optional>

#include "base/error.h"
#include "base/json.h"

namespace qev::controller {

// The controller answers a refused change with {"message": "..."} (and a 4xx status that the
// JSON client does not look at); a change it accepted comes back as `true` (204, no body).
// The error of such a reply, or nothing when the change went through.
std::optional<BridgeError> controllerChangeError(const Result<Json>& reply);

}  // namespace qev::controller
