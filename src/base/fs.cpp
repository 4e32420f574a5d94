#include "base/fs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <fstream>
#include <sstream>

namespace qev::base {
namespace {

std::error_code lastError() {
  return {errno, std::generic_category()};
}

constexpr std::string_view kTemporaryInfix = ".tmp-";
constexpr std::size_t kTemporarySuffixLength = 6;  // the XXXXXX that mkstemp fills in

}  // namespace

std::error_code writeFileAtomic(const std::filesystem::path& path, std::string_view bytes) {
  std::string tmpl = (path.parent_path() / ("." + path.filename().string() +
                                            std::string(kTemporaryInfix) +
                                            std::string(kTemporarySuffixLength, 'X')));
  const int fd = ::mkstemp(tmpl.data());
  if (fd < 0) return lastError();
  std::size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      const auto ec = lastError();
      ::close(fd);
      ::unlink(tmpl.c_str());
      return ec;
    }
    written += static_cast<std::size_t>(n);
  }
  if (::fsync(fd) != 0 || ::close(fd) != 0) {
    const auto ec = lastError();
    ::unlink(tmpl.c_str());
    return ec;
  }
  if (::rename(tmpl.c_str(), path.c_str()) != 0) {
    const auto ec = lastError();
    ::unlink(tmpl.c_str());
    return ec;
  }
  return {};
}

std::optional<std::string> readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream buffer;
  buffer << in.rdbuf();
  if (in.bad()) return std::nullopt;
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec)) return std::nullopt;
  return std::move(buffer).str();
}

bool itemExists(const std::filesystem::path& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

std::string describe(const std::error_code& ec, const std::filesystem::path& path) {
  return ec.message() + ": " + path.string();
}

bool isAtomicWriteLeftover(std::string_view name) {
  const std::size_t tail = kTemporaryInfix.size() + kTemporarySuffixLength;
  if (name.size() <= tail + 1 || name.front() != '.') return false;
  if (name.substr(name.size() - tail, kTemporaryInfix.size()) != kTemporaryInfix) return false;
  for (const char c : name.substr(name.size() - kTemporarySuffixLength)) {
    if (!std::isalnum(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

}  // namespace qev::base
