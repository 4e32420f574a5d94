#include "config/yaml_lines.h"

#include <algorithm>

#include "base/strings.h"
#include "config/hidden_choices.h"
#include "config/line_stages.h"

namespace qev::config {
namespace {

constexpr std::string_view kMemberListOpen = "proxies: [";
constexpr std::string_view kNameKey = "name:";

// Bytes of white space (the same set as base::trimWhitespace) at the start of `text`.
std::size_t leadingWhitespaceLength(std::string_view text) {
  // Probing three-byte windows keeps the cost proportional to the white space itself, however
  // long the rest of the line is.
  std::size_t length = 0;
  while (length < text.size()) {
    const std::string_view window = text.substr(length, 3);
    const auto advance =
        static_cast<std::size_t>(base::trimWhitespace(window).data() - window.data());
    if (advance == 0) break;
    length += advance;
  }
  return length;
}

template <class Fn>
void forEachFlowListItem(std::string_view text, Fn&& fn) {
  char openQuote = 0;
  std::size_t start = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\'' || c == '"') {
      if (c == openQuote) {
        openQuote = 0;
      } else if (openQuote == 0) {
        openQuote = c;
      }
    } else if (c == ',' && openQuote == 0) {
      fn(base::trimBlanks(text.substr(start, i - start)));
      start = i + 1;
    }
  }
  const std::string_view last = base::trimBlanks(text.substr(start));
  if (!last.empty()) fn(last);
}

void lowerAsciiInto(std::string_view text, std::string& out) {
  out.resize(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    out[i] = (c >= 'A' && c <= 'Z') ? static_cast<char>(c + ('a' - 'A')) : c;
  }
}

}  // namespace

std::optional<std::string_view> flowMapName(std::string_view line) {
  // Hand-written form of the leftmost match of  name:\s*('[^']*'|"[^"]*"|[^,}]+)  where \s is
  // Unicode white space. If the greedy white space is followed by ",", "}" or the end, the
  // pattern backtracks into the white space and matches it as the bare value, which unquotes
  // to the empty string; without white space that occurrence fails and the search goes on.
  for (std::size_t key = line.find(kNameKey); key != std::string_view::npos;
       key = line.find(kNameKey, key + 1)) {
    const std::size_t afterKey = key + kNameKey.size();
    const std::size_t spaces = leadingWhitespaceLength(line.substr(afterKey));
    const std::size_t value = afterKey + spaces;
    if (value < line.size()) {
      const char first = line[value];
      if (first == '\'' || first == '"') {
        const std::size_t close = line.find(first, value + 1);
        if (close != std::string_view::npos) {
          return unquoteYamlScalar(line.substr(value, close + 1 - value));
        }
      }
      if (first != ',' && first != '}') {
        const std::size_t end = std::min(line.find_first_of(",}", value), line.size());
        return unquoteYamlScalar(line.substr(value, end - value));
      }
    }
    if (spaces > 0) return line.substr(value, 0);
  }
  return std::nullopt;
}

std::string_view unquoteYamlScalar(std::string_view value) {
  const std::string_view trimmed = base::trimWhitespace(value);
  if (trimmed.size() >= 2) {
    const char first = trimmed.front();
    if ((first == '\'' || first == '"') && trimmed.back() == first) {
      return trimmed.substr(1, trimmed.size() - 2);
    }
  }
  return trimmed;
}

std::vector<std::string_view> splitFlowList(std::string_view text) {
  std::vector<std::string_view> items;
  forEachFlowListItem(text, [&](std::string_view item) { items.push_back(item); });
  return items;
}

std::string filterFlowProxyList(std::string_view line) {
  std::string out;
  if (!detail::rewriteFlowProxyList(line, out)) out.assign(line);
  return out;
}

std::string normalizeFlowProxyLine(std::string_view line) {
  std::string out;
  std::string lowered;
  if (!detail::rewriteFlowProxyLine(line, out, lowered)) out.assign(line);
  return out;
}

std::string removeTopLevelYamlBlocks(std::string_view text,
                                     std::span<const std::string_view> names) {
  std::string out;
  out.reserve(text.size());
  detail::TopLevelBlockFilter blocks(names);
  detail::LineJoiner joiner(out);
  base::forEachLine(text, [&](std::string_view line) {
    if (blocks.keep(line)) joiner.add(line);
  });
  return out;
}

std::string sanitizeSubscriptionYaml(std::string_view text) {
  detail::NamedChoiceCollector collector;
  base::forEachLine(text, [&](std::string_view line) { collector.add(line); });
  const detail::NameSet named = collector.take();
  std::string out;
  out.reserve(text.size() + text.size() / 16);
  detail::FlowEntrySanitizer sanitizer(named);
  detail::LineJoiner joiner(out);
  base::forEachLine(text, [&](std::string_view line) {
    if (const auto kept = sanitizer.process(line)) joiner.add(*kept);
  });
  return out;
}

std::string ensureRule(std::string_view rule, std::string_view text) {
  std::string out;
  out.reserve(text.size() + rule.size() + 32);
  detail::RulePlacer placer(rule, out);
  base::forEachLine(text, [&](std::string_view line) { placer.add(line); });
  placer.finish();
  return out;
}

namespace detail {

bool rewriteFlowProxyList(std::string_view line, std::string& out) {
  const std::size_t open = line.find(kMemberListOpen);
  if (open == std::string_view::npos) return false;
  const std::size_t listStart = open + kMemberListOpen.size();
  const std::size_t close = line.find(']', listStart);
  if (close == std::string_view::npos) return false;

  // Built-in outbounds keep a group meaningful: one the list starts with stays its default,
  // and a list left empty falls back to them (or to DIRECT) rather than becoming invalid.
  const auto isBuiltIn = [](std::string_view item) {
    const std::string_view name = unquoteYamlScalar(item);
    return name == "DIRECT" || name == "REJECT";
  };
  const std::vector<std::string_view> items =
      splitFlowList(line.substr(listStart, close - listStart));
  std::vector<std::string_view> kept;
  kept.reserve(items.size());
  for (const std::string_view item : items) {
    if (!config::isHiddenProxyChoice(unquoteYamlScalar(item))) kept.push_back(item);
  }
  if (!items.empty() && isBuiltIn(items.front())) kept.insert(kept.begin(), items.front());
  if (kept.empty()) {
    for (const std::string_view item : items) {
      if (isBuiltIn(item)) kept.push_back(item);
    }
    if (kept.empty()) kept.push_back("DIRECT");
  }
  out.clear();
  out.append(line.substr(0, listStart));
  for (std::size_t i = 0; i < kept.size(); ++i) {
    if (i > 0) out.append(", ");
    out.append(kept[i]);
  }
  out.append(line.substr(close));
  return true;
}

bool rewriteFlowProxyLine(std::string_view line, std::string& out, std::string& lowered) {
  // Plain substring tests with one blank after each colon, as the panel writes them.
  lowerAsciiInto(line, lowered);
  const std::string_view test = lowered;
  const bool realityVless = test.find("type: vless") != std::string_view::npos &&
                            test.find("tls: true") != std::string_view::npos &&
                            test.find("reality-opts:") != std::string_view::npos;
  const bool anyTls = test.find("type: anytls") != std::string_view::npos;
  if (!realityVless && !anyTls) return false;
  if (test.find("client-fingerprint:") != std::string_view::npos) return false;
  const std::size_t brace = line.rfind('}');
  if (brace == std::string_view::npos) return false;

  const std::string_view head = line.substr(0, brace);
  out.clear();
  out.append(head);
  out.append(base::trimBlanks(head).ends_with(',') ? " client-fingerprint: chrome, "
                                                   : ", client-fingerprint: chrome ");
  out.append(line.substr(brace));
  return true;
}

bool TopLevelBlockFilter::keep(std::string_view line) {
  if (isTopLevelLine(line)) {
    // The key is the first non-empty piece before a colon; a line without one (an empty line)
    // leaves the state as it is.
    const std::string_view trimmed = base::trimBlanks(line);
    const std::size_t begin = trimmed.find_first_not_of(':');
    if (begin != std::string_view::npos) {
      const std::size_t end = std::min(trimmed.find(':', begin), trimmed.size());
      const std::string_view key = trimmed.substr(begin, end - begin);
      skipping_ = std::find(names_.begin(), names_.end(), key) != names_.end();
    }
  }
  return !skipping_;
}

std::vector<std::string_view> ruleFields(std::string_view item) {
  const std::string_view rule = unquoteYamlScalar(item);
  std::vector<std::string_view> fields;
  for (std::size_t start = 0; start <= rule.size();) {
    const std::size_t comma = std::min(rule.find(',', start), rule.size());
    fields.push_back(unquoteYamlScalar(base::trimBlanks(rule.substr(start, comma - start))));
    start = comma + 1;
  }
  return fields;
}

SectionTracker::Section SectionTracker::update(std::string_view line, std::string_view trimmed) {
  if (isTopLevelLine(line) && trimmed.ends_with(':')) {
    const std::string_view section = trimmed.substr(0, trimmed.size() - 1);
    section_ = section == "proxies"        ? Section::kProxies
               : section == "proxy-groups" ? Section::kProxyGroups
               : section == "rules"        ? Section::kRules
                                           : Section::kOther;
  }
  return section_;
}

void NamedChoiceCollector::keepIfHidden(std::string_view name) {
  if (config::isHiddenProxyChoice(name) && !named_.contains(name)) named_.emplace(name);
}

void NamedChoiceCollector::add(std::string_view line) {
  const std::string_view trimmed = base::trimBlanks(line);
  const Section section = sections_.update(line, trimmed);
  if (!trimmed.starts_with("- ")) return;
  if (section == Section::kRules) {
    // The target is the last field, after the options that may follow it.
    std::vector<std::string_view> fields = ruleFields(trimmed.substr(2));
    while (!fields.empty() && (fields.back() == "no-resolve" || fields.back() == "src")) {
      fields.pop_back();
    }
    if (!fields.empty()) keepIfHidden(fields.back());
  } else if (section == Section::kProxyGroups && !trimmed.starts_with("- {") &&
             !trimmed.starts_with("- name:")) {
    keepIfHidden(unquoteYamlScalar(trimmed.substr(2)));
  }
}

std::optional<std::string_view> FlowEntrySanitizer::process(std::string_view line) {
  const std::string_view trimmed = base::trimBlanks(line);
  const Section section = sections_.update(line, trimmed);
  if ((section != Section::kProxies && section != Section::kProxyGroups) ||
      !trimmed.starts_with("- {")) {
    return line;
  }
  const std::optional<std::string_view> name = flowMapName(trimmed);
  if (name && config::isHiddenProxyChoice(*name) && !named_.contains(*name)) return std::nullopt;
  const bool rewritten = section == Section::kProxies
                             ? rewriteFlowProxyLine(line, rewritten_, lowered_)
                             : rewriteFlowProxyList(line, rewritten_);
  if (!rewritten) return line;
  return std::string_view(rewritten_);
}

bool RulePlacer::isRuleItem(std::string_view line) const {
  const std::string_view trimmed = base::trimBlanks(line);
  return trimmed.size() == rule_.size() + 2 && trimmed.starts_with("- ") &&
         trimmed.substr(2) == rule_;
}

void RulePlacer::appendLine(std::string_view line) {
  if (anyLine_) out_.push_back('\n');
  anyLine_ = true;
  out_.append(line);
}

void RulePlacer::appendItem(std::string_view indentation) {
  out_.push_back('\n');
  out_.append(indentation).append("- ").append(rule_);
}

void RulePlacer::add(std::string_view line) {
  // Every existing copy goes, so that the item is always placed anew at the top.
  if (isRuleItem(line)) return;
  if (!headerSeen_) {
    appendLine(line);
    if (base::trimBlanks(line) == "rules:") {
      headerSeen_ = true;
      afterHeader_ = out_.size();
    }
    return;
  }
  if (!placed_) {
    const std::string_view trimmed = base::trimWhitespace(line);
    if (!trimmed.empty() && !trimmed.starts_with('#')) {
      // The item copies the indentation of the first item below the header.
      const std::size_t indentation = line.find_first_not_of(" \t");
      appendItem(line.substr(0, std::min(indentation, line.size())));
      placed_ = true;
    } else if (!firstBelowHeader_) {
      firstBelowHeader_ = out_.size() + 1;
    }
  }
  appendLine(line);
}

void RulePlacer::finish() {
  if (!headerSeen_) {
    if (out_.size() == base_ || out_.back() != '\n') out_.push_back('\n');
    out_.append("rules:\n  - ").append(rule_).push_back('\n');
    return;
  }
  if (placed_) return;
  if (!firstBelowHeader_) {
    // The header is the last line: the usual list indentation.
    appendItem("    ");
    return;
  }
  // Only blank lines follow the header: the item goes right below it, indented like the
  // first of them.
  const std::string_view below = std::string_view(out_).substr(*firstBelowHeader_);
  const std::size_t indentation = std::min(below.find_first_not_of(" \t"), below.size());
  std::string item = "\n";
  item.append(below.substr(0, indentation)).append("- ").append(rule_);
  out_.insert(afterHeader_, item);
}

}  // namespace detail
}  // namespace qev::config
