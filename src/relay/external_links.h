#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "base/error.h"
#include "base/json.h"
#include "base/logger.h"
#include "base/main_queue.h"

namespace qev::relay {

// The link to hand to the desktop, or the error the page sees: 20 "missing external URL" for no
// string or only white space, 21 "invalid external URL" for anything that is not an http,
// https or mailto URL (file:, javascript: and application schemes are never opened). A
// scheme-relative "//host/path" becomes https.
Result<std::string> externalLinkFromText(const Json* value);

// Whether a link the page navigates to leaves the application for the desktop's default
// handler: exactly the links `openExternal` would open.
bool shouldOpenExternally(std::string_view url);

// The `openExternal` command: checks the link and opens it with the desktop's default handler
// on the main queue, since that is user-interface work.
class ExternalLinks {
 public:
  using Open = std::function<void(const std::string& url)>;

  ExternalLinks(const base::Logger& log, std::shared_ptr<base::MainQueue> mainQueue, Open open);

  void openExternal(const Json& args, std::function<void(Json)> resolve,
                    std::function<void(BridgeError)> reject);

 private:
  const base::Logger& log_;
  std::shared_ptr<base::MainQueue> mainQueue_;
  Open open_;
};

}  // namespace qev::relay
