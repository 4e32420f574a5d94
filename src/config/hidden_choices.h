#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qev::config {

// True for the names the user never picks: account information pseudo-nodes (remaining
// traffic, next reset, plan expiry), automatic-strategy groups and the core's DIRECT and
// REJECT outbounds. The name is trimmed of white space first; the match is case-sensitive.
bool isHiddenProxyChoice(std::string_view name);

// The names that are not hidden, in their given order (duplicates stay).
std::vector<std::string> filteredProxyChoices(const std::vector<std::string>& names);

}  // namespace qev::config
