#pragma once

#include <string>
#include <utility>
#include <variant>

namespace qev {

// An error as the page sees it: a domain, a numeric code and the text shown to the user.
struct BridgeError {
  std::string domain;
  int code = 0;
  std::string description;

  static BridgeError native(int code, std::string description) {
    return {"NativeBridge", code, std::move(description)};
  }
  // Arguments from the page that a command cannot use.
  static BridgeError invalidRequest() { return native(3, "invalid request"); }
  // A transport or file failure reported by a library; the description is what the page shows.
  static BridgeError system(std::string description, int code = 0) {
    return {"System", code, std::move(description)};
  }

  bool operator==(const BridgeError&) const = default;
};

// Success with a value or failure with a BridgeError.
template <class T>
class Result {
 public:
  Result(T value) : state_(std::move(value)) {}            // NOLINT(google-explicit-constructor)
  Result(BridgeError error) : state_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

  bool ok() const { return state_.index() == 0; }
  explicit operator bool() const { return ok(); }

  T& value() & { return std::get<0>(state_); }
  const T& value() const& { return std::get<0>(state_); }
  T&& value() && { return std::get<0>(std::move(state_)); }
  const BridgeError& error() const { return std::get<1>(state_); }

 private:
  std::variant<T, BridgeError> state_;
};

}  // namespace qev
