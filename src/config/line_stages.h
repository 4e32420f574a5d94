#pragma once

// Building blocks of the line-based rewriting, shared by the single-purpose functions of
// yaml_lines.h and the one-pass runtime configuration builder. Each stage looks at one line
// at a time, so the whole pipeline runs in a single pass over the text.

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace qev::config::detail {

// A line starting in the first column (an empty line counts as well).
inline bool isTopLevelLine(std::string_view line) {
  return line.empty() || (line.front() != ' ' && line.front() != '\t');
}

// Writes `line` into `out` as the rewritten member-list line; false when the line has no
// inline "proxies: [...]" list and stays as it is.
bool rewriteFlowProxyList(std::string_view line, std::string& out);

// Writes `line` with a client fingerprint added into `out`; false when none is needed.
// `lowered` is scratch space, reused between calls to spare allocations.
bool rewriteFlowProxyLine(std::string_view line, std::string& out, std::string& lowered);

// Decides line by line whether a line belongs to one of the named top-level sections.
class TopLevelBlockFilter {
 public:
  explicit TopLevelBlockFilter(std::span<const std::string_view> names) : names_(names) {}
  bool keep(std::string_view line);

 private:
  std::span<const std::string_view> names_;
  bool skipping_ = false;
};

struct NameHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view name) const {
    return std::hash<std::string_view>{}(name);
  }
};
using NameSet = std::unordered_set<std::string, NameHash, std::equal_to<>>;

// The comma-separated fields of a rule list item (the text after "- "), trimmed and unquoted.
std::vector<std::string_view> ruleFields(std::string_view item);

// Which top-level section a line belongs to, as far as the subscription rewriting cares.
class SectionTracker {
 public:
  enum class Section { kOther, kProxies, kProxyGroups, kRules };
  // Reads a header line (top-level, ending in ":"); other lines keep the current section.
  Section update(std::string_view line, std::string_view trimmed);

 private:
  Section section_ = Section::kOther;
};

// Collects the hidden names that something else still refers to: the target of a rule, or a
// member of a group written in block style. Such entries must stay, or the core refuses the
// configuration.
class NamedChoiceCollector {
 public:
  void add(std::string_view line);
  NameSet take() { return std::move(named_); }

 private:
  using Section = SectionTracker::Section;
  void keepIfHidden(std::string_view name);
  SectionTracker sections_;
  NameSet named_;
};

// Drops hidden entries of `proxies` and `proxy-groups` that nothing names and normalizes the
// remaining ones.
class FlowEntrySanitizer {
 public:
  explicit FlowEntrySanitizer(const NameSet& named) : named_(named) {}
  // The line to emit, or none to drop it. The view is valid until the next call.
  std::optional<std::string_view> process(std::string_view line);

 private:
  using Section = SectionTracker::Section;
  const NameSet& named_;
  SectionTracker sections_;
  std::string rewritten_;
  std::string lowered_;
};

// Joins lines with "\n" into `out` while moving the item "- <rule>" to the top of the first
// `rules:` list (or appending a new list in finish()).
class RulePlacer {
 public:
  RulePlacer(std::string_view rule, std::string& out) : rule_(rule), out_(out), base_(out.size()) {}
  void add(std::string_view line);
  void finish();

 private:
  bool isRuleItem(std::string_view line) const;
  void appendLine(std::string_view line);
  void appendItem(std::string_view indentation);

  std::string_view rule_;
  std::string& out_;
  std::size_t base_;
  bool anyLine_ = false;
  bool headerSeen_ = false;
  bool placed_ = false;
  // Offset right after the header line, and where the first line below it begins.
  std::size_t afterHeader_ = 0;
  std::optional<std::size_t> firstBelowHeader_;
};

// Joins lines with "\n" into `out`.
class LineJoiner {
 public:
  explicit LineJoiner(std::string& out) : out_(out) {}
  void add(std::string_view line) {
    if (anyLine_) out_.push_back('\n');
    anyLine_ = true;
    out_.append(line);
  }

 private:
  std::string& out_;
  bool anyLine_ = false;
};

}  // namespace qev::config::detail
