#pragma once

// What every fuzz target shares: the input as text, and a check that stops the run with the
// reason when a property fails (libFuzzer then keeps the input as a crash).

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace qev::fuzz {

inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

[[noreturn]] inline void fail(const char* property) {
  std::fprintf(stderr, "property failed: %s\n", property);
  std::abort();
}

}  // namespace qev::fuzz

#define FUZZ_CHECK(condition)                        \
  do {                                               \
    if (!(condition)) ::qev::fuzz::fail(#condition); \
  } while (false)
