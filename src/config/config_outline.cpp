#include "config/config_outline.h"

#include "base/strings.h"
#include "config/line_stages.h"
#include "config/yaml_lines.h"

namespace qev::config {

ConfigOutline outlineOf(std::string_view configText) {
  using Section = detail::SectionTracker::Section;
  ConfigOutline outline;
  detail::SectionTracker sections;
  base::forEachLine(configText, [&](std::string_view line) {
    const std::string_view trimmed = base::trimBlanks(line);
    const Section section = sections.update(line, trimmed);
    if (section == Section::kRules && trimmed.starts_with("- ")) {
      const auto fields = detail::ruleFields(trimmed.substr(2));
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
