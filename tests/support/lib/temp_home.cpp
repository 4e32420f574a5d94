#include "temp_home.h"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace qev::test {

TempDir::TempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "qev-test-XXXXXX").string();
  if (::mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

storage::Environment environmentIn(const std::filesystem::path& root, const std::string& userName) {
  storage::Environment env;
  env.home = root / "home";
  env.resources = root / "resources";
  env.userName = userName;
  env.executable = root / "bin" / "qev";
  std::filesystem::create_directories(env.home);
  std::filesystem::create_directories(env.resources);
  return env;
}

std::string readText(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void writeText(const std::filesystem::path& file, const std::string& text) {
  std::filesystem::create_directories(file.parent_path());
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out << text;
}

unsigned permissionsOf(const std::filesystem::path& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return 0;
  return st.st_mode & 07777;
}

}  // namespace qev::test
