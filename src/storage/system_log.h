#pragma once

#include <string_view>

#include "base/logger.h"

namespace qev::storage {

// The platform's own log (syslog), for the few failures that happen before or outside the
// diagnostic log's folder, such as moving the data folder of the earlier edition.
class SystemLog final : public base::Logger {
 public:
  void message(std::string_view text) const noexcept override;
};

}  // namespace qev::storage
