#pragma once

#include <future>
#include <utility>

namespace qev::test {

// Runs an asynchronous call, handing it a completion, and waits for the one value that
// completion receives: `awaited<bool>([&](auto done) { supervisor.ensureMihomoRunning(done); })`.
template <typename Value, typename Call>
Value awaited(Call call) {
  std::promise<Value> promise;
  call([&promise](Value value) { promise.set_value(std::move(value)); });
  return promise.get_future().get();
}

// The same for a completion without a value.
template <typename Call>
void awaitedDone(Call call) {
  std::promise<void> promise;
  call([&promise] { promise.set_value(); });
  promise.get_future().get();
}

}  // namespace qev::test
