#include "bridge/diagnostic_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "base/fs.h"
#include "base/redaction.h"
#include "base/strings.h"
#include "base/utf8.h"

namespace qev::bridge {

DiagnosticLog::DiagnosticLog(std::filesystem::path file) : file_(std::move(file)) {}

void DiagnosticLog::append(const Json& payload) const noexcept {
  try {
    std::string text;
    if (payload.is_object()) {
      const auto it = payload.find("message");
      text = (it != payload.end() && it->is_string()) ? it->get<std::string>()
                                                      : base::describeValue(payload);
    } else {
      text = base::describeValue(payload);
    }
    // What the page logs is free text of unknown shape: bodies and credentials are masked.
    write(base::redactFreeText(text));
  } catch (...) {
    // Logging never fails outward.
  }
}

void DiagnosticLog::message(std::string_view text) const noexcept {
  try {
    write(base::redactURLString(text));
  } catch (...) {
  }
}

void DiagnosticLog::write(std::string_view redactedText) const noexcept {
  if (!base::isValidUtf8(redactedText)) return;  // no lossy conversion
  constexpr std::size_t kMaxLine = 8192;
  std::string line = "[" + base::iso8601UtcStamp(std::chrono::system_clock::now()) + "] ";
  line.append(base::truncateUtf8Bytes(redactedText, kMaxLine - line.size() - 1)).push_back('\n');

  const int fd = ::open(file_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  if (fd >= 0) {
    // One write call per entry, so concurrent appends interleave by whole lines.
    std::size_t done = 0;
    while (done < line.size()) {
      const ssize_t n = ::write(fd, line.data() + done, line.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      done += static_cast<std::size_t>(n);
    }
    ::close(fd);
    return;
  }
  if (errno == ENOENT) (void)base::writeFileAtomic(file_, line);
}

}  // namespace qev::bridge
