#pragma once

#include <filesystem>
#include <string>

#include "base/logger.h"

namespace qev::app {

// The two scripts every shell gives its web view: the web runtime injected at document start
// ("" when the file is missing, which is logged) and the frontend configuration served from
// memory as `qevjs-oss-config.js`. A panel base given by QEV_API_BASE is written into both, so
// the page talks to the same panel as the native side.
struct PageScripts {
  std::string runtime;
  std::string ossConfig;
};

PageScripts loadPageScripts(const std::filesystem::path& resources, const base::Logger& log);

}  // namespace qev::app
