#include "tests/support/testserver/store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>

namespace testserver {
namespace {

int CodeOfErrno() {
  switch (errno) {
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return kNoSpace;
    case EEXIST:
    case ENOTEMPTY:
      return kExists;
    case ELOOP:    // a symbolic link
    case ENOTDIR:  // or a file in a directory's place
      return kBadPath;
    default:
      return kStoreFailed;
  }
}

// The names of a relative path; false for one that does not stay below.
bool Split(const std::string& path, std::vector<std::string>& names) {
  if (path.find('\0') != std::string::npos || (!path.empty() && path[0] == '/')) {
    return false;
  }
  for (std::size_t begin = 0; begin < path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    const std::string name = path.substr(begin, end - begin);
    if (name == "..") {
      return false;
    }
    if (!name.empty() && name != ".") {
      names.push_back(name);
    }
    begin = end + 1;
  }
  return true;
}

// Opens the directory, making it when make is set, and follows no link on the way. -1 on failure.
int OpenDir(const std::string& root, const std::vector<std::string>& names, bool make) {
  constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  int dir = open(root.c_str(), kFlags);
  for (auto name = names.begin(); dir >= 0 && name != names.end(); ++name) {
    const bool isThere = !make || mkdirat(dir, name->c_str(), 0777) == 0 || errno == EEXIST;
    const int next = isThere ? openat(dir, name->c_str(), kFlags | O_NOFOLLOW) : -1;
    const int error = errno;
    close(dir);
    errno = error;
    dir = next;
  }
  return dir;
}

}  // namespace

StoredFile::~StoredFile() {
  if (m_fd >= 0) {
    close(m_fd);
  }
  if (!m_temporary.empty()) {
    unlinkat(m_dir, m_temporary.c_str(), 0);
  }
  if (m_dir >= 0) {
    close(m_dir);
  }
}

int StoredFile::Open(const std::string& root, const std::string& dir, const std::string& name, bool overwrite) {
  static std::atomic<int> number{0};
  std::vector<std::string> names;
  if (name.empty() || name == "." || name == ".." || name.find_first_of(std::string("/\0", 2)) != std::string::npos ||
      !Split(dir, names)) {
    return kBadPath;
  }
  if (root.empty()) {
    return 0;
  }
  m_dir = OpenDir(root, names, true);
  struct stat there = {};
  if (m_dir < 0) {
    return CodeOfErrno();
  }
  if (!overwrite && fstatat(m_dir, name.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0) {
    return kExists;
  }
  const std::string temporary = ".receiving-" + std::to_string(getpid()) + "-" + std::to_string(++number);
  m_fd = openat(m_dir, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
  if (m_fd < 0) {
    return CodeOfErrno();
  }
  m_temporary = temporary;
  m_name = name;
  m_overwrite = overwrite;
  return 0;
}

int StoredFile::Write(const char* data, std::size_t size) {
  while (m_fd >= 0 && size > 0) {
    const ssize_t count = write(m_fd, data, size);
    if (count <= 0) {
      return CodeOfErrno();
    }
    data += count;
    size -= static_cast<std::size_t>(count);
  }
  return 0;
}

int StoredFile::Commit() {
  if (m_fd < 0) {
    return 0;
  }
  const unsigned int flags = m_overwrite ? 0 : RENAME_NOREPLACE;
  if (renameat2(m_dir, m_temporary.c_str(), m_dir, m_name.c_str(), flags) != 0) {
    return CodeOfErrno();
  }
  m_temporary.clear();
  return 0;
}

int MakeDirs(const std::string& root, const std::vector<std::string>& dirs) {
  for (const std::string& dir : dirs) {
    std::vector<std::string> names;
    if (!Split(dir, names)) {
      return kBadPath;
    }
    const int fd = root.empty() ? -1 : OpenDir(root, names, true);
    if (fd < 0 && !root.empty()) {
      return CodeOfErrno();
    }
    close(fd);
  }
  return 0;
}

int MoveDir(const std::string& root, const std::string& from, const std::string& to) {
  std::vector<std::string> fromNames;
  std::vector<std::string> toNames;
  if (!Split(from, fromNames) || !Split(to, toNames) || fromNames.empty() || toNames.empty()) {
    return kBadPath;
  }
  if (root.empty()) {
    return 0;
  }
  const std::string fromName = fromNames.back();
  const std::string toName = toNames.back();
  fromNames.pop_back();
  toNames.pop_back();
  const int fromDir = OpenDir(root, fromNames, false);
  const int toDir = OpenDir(root, toNames, true);
  int code = fromDir < 0 || toDir < 0 ? CodeOfErrno() : 0;
  if (code == 0 && renameat(fromDir, fromName.c_str(), toDir, toName.c_str()) != 0) {
    code = CodeOfErrno();
  }
  close(fromDir);
  close(toDir);
  return code;
}

}  // namespace testserver
