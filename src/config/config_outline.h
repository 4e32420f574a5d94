#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qev::config {

// What the core's table cannot tell about a configuration: where the catch-all rule sends
// traffic, and the order in which the groups were written (the table comes out alphabetically).
struct ConfigOutline {
  std::optional<std::string> catchAllTarget;  // the target of the last MATCH rule
  std::vector<std::string> groupOrder;        // the names in `proxy-groups`, in file order
};

ConfigOutline outlineOf(std::string_view configText);

}  // namespace qev::config
