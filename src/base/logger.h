#pragma once

#include <string_view>

namespace qev::base {

// Where parts write their diagnostic entries ("native.tag: detail"). The bridge's diagnostic
// log implements it; parts receive it through their constructors.
class Logger {
 public:
  virtual ~Logger() = default;
  virtual void message(std::string_view text) const noexcept = 0;
};

}  // namespace qev::base
