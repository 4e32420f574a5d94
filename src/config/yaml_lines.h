#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Line-based rewriting of the subscription configuration. The text is never parsed as YAML:
// the panel writes every entry of `proxies` and `proxy-groups` in flow style on one line, and
// only a few narrow edits are needed. Lines are split at every newline character (CR LF gives
// an extra empty line) and joined again with "\n". A line of unexpected shape passes through
// unchanged. All functions are pure and never fail.
namespace qev::config {

// The value of the first `name:` key of a flow-map line, unquoted; none without a match. The
// key is matched without a word boundary, so "nickname: x" counts as well. The result views
// `line`.
std::optional<std::string_view> flowMapName(std::string_view line);

// `value` trimmed of white space, without one pair of matching outer quotes. Escapes are not
// interpreted. The result views `value`.
std::string_view unquoteYamlScalar(std::string_view value);

// The items of a comma-separated flow list, split at commas outside quotes and trimmed of
// blanks and tabs; quotes stay in the items. Empty items are kept, except a trailing one.
// Brackets are not counted. The results view `text`.
std::vector<std::string_view> splitFlowList(std::string_view text);

// The line with hidden names removed from its inline "proxies: [...]" member list, which is
// rewritten with ", " between the members.
std::string filterFlowProxyList(std::string_view line);

// The line with "client-fingerprint: chrome" added to a VLESS REALITY or anytls proxy entry
// that has none.
std::string normalizeFlowProxyLine(std::string_view line);

// `text` without the top-level sections whose key is in `names` (exact match). A section ends
// at the next line that starts in the first column, of any kind.
std::string removeTopLevelYamlBlocks(std::string_view text,
                                     std::span<const std::string_view> names);

// `text` with hidden proxies and hidden groups removed from `proxies` and `proxy-groups`,
// hidden members removed from the groups' lists and fingerprints added where needed.
std::string sanitizeSubscriptionYaml(std::string_view text);

// `text` with exactly one item "- <rule>", placed first in the first `rules:` list, or a new
// `rules` list at the end. Every other copy of the item is removed, wherever it stands.
std::string ensureRule(std::string_view rule, std::string_view text);

}  // namespace qev::config
