#include "platform/local/state.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace local {
namespace {

std::string StateDir() {
  const char* value = std::getenv("MEDIAUTIL_STATE_DIR");
  std::string dir = value == nullptr ? "" : value;
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir;
}

bool MakeDir(const std::string& dir) {
  std::error_code ignored;  // mkdir tells whether the parent stands
  const std::filesystem::path parent = std::filesystem::path(dir).parent_path();
  if (!parent.empty()) std::filesystem::create_directories(parent, ignored);
  return mkdir(dir.c_str(), 0750) == 0 || errno == EEXIST;
}

}  // namespace

std::string StatePath(const char* name) {
  const std::string dir = StateDir();
  return dir.empty() ? dir : dir + "/" + name;
}

std::string StatePathForWriting(const char* name) {
  const std::string dir = StateDir();
  return dir.empty() || !MakeDir(dir) ? std::string() : dir + "/" + name;
}

}  // namespace local
