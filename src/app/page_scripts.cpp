#include "app/page_scripts.h"

#include <cstdlib>
#include <utility>

#include "base/fs.h"
#include "qev/resources.h"
#include "relay/api_base.h"

namespace qev::app {

PageScripts loadPageScripts(const std::filesystem::path& resources, const base::Logger& log) {
  const auto scriptFile = resources / "nativeCompatibilityScript.js";
  auto runtime = base::readFile(scriptFile);
  if (!runtime) log.message("native.webview.scriptMissing: " + scriptFile.string());
  PageScripts scripts{runtime.value_or(std::string()), std::string(resources::ossConfigScript())};
  if (const char* override = std::getenv("QEV_API_BASE"); override && *override) {
    const auto base = relay::nativeFallbackAPIBase(std::string(override));
    if (!scripts.runtime.empty()) scripts.runtime = relay::withPageApiBase(scripts.runtime, base);
    scripts.ossConfig = relay::withPageApiBase(std::move(scripts.ossConfig), base);
  }
  return scripts;
}

}  // namespace qev::app
