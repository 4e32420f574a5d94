#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/json.h"
#include "config/config_outline.h"

namespace qev::proxies {

// The group the page's "SELECT" stands for, in the core's proxy table: "SELECT" when the
// configuration defines it, else the product group when it is a selector, else the first
// selector with a real node reached from the catch-all target along selector members, else
// the main groups other panels use, else the first selector in the configuration's order
// (the table's order when the configuration is unknown).
std::optional<std::string> resolveMainGroup(const Json& table,
                                            const config::ConfigOutline& outline);

// The shortest chain of selectors from `from` to `to`, each a member of the one before, both
// ends included; empty when there is none.
std::vector<std::string> selectorPath(const Json& table, const std::string& from,
                                      const std::string& to);

// The group a delay test must go through to follow the user's traffic: the catch-all target in
// rule mode, "GLOBAL" in global mode; none in direct mode or without a catch-all rule.
std::optional<std::string> trafficEntry(std::string_view mode,
                                        const config::ConfigOutline& outline);

}  // namespace qev::proxies
