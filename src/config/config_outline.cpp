#include "config/config_outline.h"

#include "base/strings.h"
#include "config/line_stages.h"
#include "config/yaml_lines.h"

namespace qev::config {
namespace {

// The fields of a rule list item, trimmed and unquoted.
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

}  // namespace

ConfigOutline outlineOf(std::string_view configText) {
  using Section = detail::SectionTracker::Section;
  ConfigOutline outline;
  detail::SectionTracker sections;
  base::forEachLine(configText, [&](std::string_view line) {
    const std::string_view trimmed = base::trimBlanks(line);
    const Section section = sections.update(line, trimmed);
    if (section == Section::kRules && trimmed.starts_with("- ")) {
      const auto fields = ruleFields(trimmed.substr(2));
      if (fields.size() >= 2 && fields[0] == "MATCH")
        outline.catchAllTarget = std::string(fields[1]);
    } else if (section == Section::kProxyGroups && trimmed.starts_with("- {")) {
      if (const auto name = flowMapName(trimmed)) outline.groupOrder.emplace_back(*name);
    } else if (section == Section::kProxyGroups && trimmed.starts_with("- name:")) {
      outline.groupOrder.emplace_back(unquoteYamlScalar(trimmed.substr(7)));
    }
  });
  return outline;
}

}  // namespace qev::config
