#pragma once

#include <functional>

#include "base/error.h"
#include "base/json.h"

namespace qev {

// The two completions of a page command; exactly one of them runs, once, on any thread.
using Resolve = std::function<void(Json)>;
using Reject = std::function<void(BridgeError)>;

// "Did it work" completions of the background chains.
using BoolCompletion = std::function<void(bool)>;
using DoneCompletion = std::function<void()>;

}  // namespace qev
