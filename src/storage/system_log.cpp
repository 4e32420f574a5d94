#include "storage/system_log.h"

#include <syslog.h>

#include <climits>

namespace qev::storage {

void SystemLog::message(std::string_view text) const noexcept {
  const int length = text.size() > INT_MAX ? INT_MAX : static_cast<int>(text.size());
  ::syslog(LOG_USER | LOG_ERR, "qev: %.*s", length, text.data());
}

}  // namespace qev::storage
