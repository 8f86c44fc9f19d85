#include "tests/support/testserver/store.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>

namespace fs = std::filesystem;

namespace testserver {
namespace {

int CodeOf(const std::error_code& error) {
  if (!error) return 0;
  if (error == std::errc::no_space_on_device || error == std::errc::file_too_large) return kNoSpace;
  if (error == std::errc::file_exists || error == std::errc::directory_not_empty) return kExists;
  return kStoreFailed;
}

int CodeOfErrno() {
  return CodeOf(std::error_code(errno, std::generic_category()));
}

// The place of a relative path; none for one that does not stay below.
std::optional<fs::path> Below(const std::string& root, const std::string& names) {
  if (names.find('\0') != std::string::npos || fs::path(names).is_absolute()) return std::nullopt;
  fs::path path = root;
  for (const fs::path& name : fs::path(names)) {
    std::error_code ignored;
    if (name == "..") return std::nullopt;
    if (!name.empty() && name != ".") path /= name;
    if (path != root && fs::is_symlink(path, ignored)) return std::nullopt;
  }
  return path;
}

int MakeDir(const fs::path& dir) {
  std::error_code error;
  fs::create_directories(dir, error);
  return CodeOf(error);
}

}  // namespace

StoredFile::~StoredFile() {
  if (m_fd < 0) return;
  close(m_fd);
  unlink(m_temporary.c_str());  // nothing is there when it has taken its name
}

int StoredFile::Open(const std::string& root, const std::string& dir, const std::string& name, bool overwrite) {
  const std::optional<fs::path> place = Below(root, dir);
  const bool isName = name.find_first_of(std::string("/\0", 2)) == std::string::npos && fs::path(name).has_stem();
  if (!place || !isName || name == "." || name == "..") return kBadPath;
  if (root.empty()) return 0;
  if (const int code = MakeDir(*place); code != 0) return code;
  m_path = *place / name;
  m_overwrite = overwrite;
  if (!overwrite && fs::exists(fs::symlink_status(m_path))) return kExists;
  m_temporary = *place / ".receiving-XXXXXX";
  m_fd = mkostemp(m_temporary.data(), O_CLOEXEC);
  return m_fd < 0 ? CodeOfErrno() : 0;
}

int StoredFile::Write(const char* data, std::size_t size) const {
  while (m_fd >= 0 && size > 0) {
    const ssize_t count = write(m_fd, data, size);
    if (count <= 0) return CodeOfErrno();
    data += count;
    size -= static_cast<std::size_t>(count);
  }
  return 0;
}

int StoredFile::Commit() const {
  const unsigned int flags = m_overwrite ? 0 : RENAME_NOREPLACE;
  const bool isDone = m_fd < 0 || renameat2(AT_FDCWD, m_temporary.c_str(), AT_FDCWD, m_path.c_str(), flags) == 0;
  return isDone ? 0 : CodeOfErrno();
}

int MakeDirs(const std::string& root, const std::vector<std::string>& dirs) {
  for (const std::string& dir : dirs) {
    const std::optional<fs::path> place = Below(root, dir);
    if (!place) return kBadPath;
    if (const int code = root.empty() ? 0 : MakeDir(*place); code != 0) return code;
  }
  return 0;
}

int MoveDir(const std::string& root, const std::string& from, const std::string& to) {
  const std::optional<fs::path> source = Below(root, from);
  const std::optional<fs::path> target = Below(root, to);
  if (!source || !target || *source == root || *target == root) return kBadPath;
  if (root.empty()) return 0;
  std::error_code error;
  fs::create_directories(target->parent_path(), error);
  if (!error) fs::rename(*source, *target, error);
  return CodeOf(error);
}

}  // namespace testserver
