#pragma once

#include <nlohmann/json.hpp>

namespace qev {

// Object keys iterate in sorted order, which is also how the proxy core emits its tables.
using Json = nlohmann::json;

}  // namespace qev
