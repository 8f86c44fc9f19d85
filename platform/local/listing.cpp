#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "platform/file.h"
#include "platform/local/fd.h"

namespace {

struct DirClose {
  void operator()(DIR* dir) const { closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirClose>;

enum class Kind { kDir, kFile, kOther };

// Called for each entry of an open directory. path: from the walk's root. False leaves out what a directory holds.
using Visitor = std::function<bool(int dirFd, const char* name, const std::string& path, Kind kind)>;

constexpr int kOpenDir = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

// Opens a directory below another, "" is that one itself, entry by entry, so that no link is followed at any level. -1
// with errno set.
int OpenBelow(int dirFd, const std::string& path) {
  int fd = openat(dirFd, ".", kOpenDir);
  std::size_t begin = 0;
  while (fd >= 0 && begin < path.size()) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    const local::UniqueFd parent(fd);
    fd = openat(parent.Get(), path.substr(begin, end - begin).c_str(), kOpenDir | O_NOFOLLOW);
    begin = end + 1;
  }
  return fd;
}

Kind KindOf(mode_t mode) {
  return S_ISDIR(mode) ? Kind::kDir : S_ISREG(mode) ? Kind::kFile : Kind::kOther;
}

Kind KindOf(int dirFd, const dirent& entry) {
  if (entry.d_type == DT_DIR) return Kind::kDir;
  if (entry.d_type == DT_REG) return Kind::kFile;
  struct stat info = {};
  const bool unknown = entry.d_type == DT_UNKNOWN;
  return unknown && fstatat(dirFd, entry.d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 ? KindOf(info.st_mode) : Kind::kOther;
}

// Goes through all that is below a directory, its descriptor is root, with one directory open at a time.
class Walker {
 public:
  explicit Walker(int root) : m_root(root) {}

  // Goes on after an error; -1 with the first one's errno.
  int Run(const Visitor& visit) {
    int error = 0;
    while (!m_pending.empty()) {
      const std::string path = std::move(m_pending.back());
      m_pending.pop_back();
      if (!(Open(path) && VisitEntries(visit)) && error == 0) error = errno;
    }
    if (error != 0) errno = error;
    return error == 0 ? 0 : -1;
  }

 private:
  // Mostly from the directory before, which holds it: from the root a deep tree takes its depth squared.
  bool Open(const std::string& path) {
    if (path.size() >= PATH_MAX) {  // of no use to anyone
      errno = ENAMETOOLONG;
      return false;
    }
    const std::string before = m_path + "/";
    const bool isBelow = m_dir != nullptr && path.compare(0, before.size(), before) == 0;
    const int fd = isBelow ? OpenBelow(dirfd(m_dir.get()), path.substr(before.size())) : OpenBelow(m_root, path);
    m_dir.reset(fd < 0 ? nullptr : fdopendir(fd));
    m_path = path;
    if (m_dir == nullptr && fd >= 0) close(fd);
    return m_dir != nullptr;
  }

  bool VisitEntries(const Visitor& visit) {
    const int fd = dirfd(m_dir.get());
    const std::string base = m_path.empty() ? m_path : m_path + "/";
    while (true) {
      errno = 0;
      const dirent* entry = readdir(m_dir.get());
      if (entry == nullptr) return errno == 0;
      const std::string_view name = entry->d_name;
      if (name == "." || name == "..") continue;
      std::string path = base + entry->d_name;
      const Kind kind = KindOf(fd, *entry);
      if (visit(fd, entry->d_name, path, kind) && kind == Kind::kDir) m_pending.push_back(std::move(path));
    }
  }

  const int m_root;
  DirPtr m_dir;
  std::string m_path;  // of m_dir, from the root
  std::vector<std::string> m_pending = {""};
};

bool EndsIn(std::string_view name, std::string_view suffix) {
  return name.size() >= suffix.size() && name.substr(name.size() - suffix.size()) == suffix;
}

int List(const std::string& dir, Kind wanted, std::list<std::string>& paths, bool recursive, bool hidden,
         const std::string& suffix) {
  paths.clear();
  if (dir.find('\0') != std::string::npos) {
    errno = EINVAL;
    return -1;
  }
  const local::UniqueFd root(open(dir.c_str(), kOpenDir));
  if (!root.IsOpen()) return -1;
  const std::string base = dir.back() == '/' ? dir : dir + "/";
  const int result = Walker(root.Get()).Run([&](int, const char* name, const std::string& path, Kind kind) {
    if (*name == '.' && !hidden) return false;
    if (kind == wanted && EndsIn(name, suffix)) paths.push_back(base + path);
    return recursive;
  });
  paths.sort();
  return result;
}

// The entry is held by a descriptor, so that what was looked at is what changes hands.
bool TakeOwnership(int dirFd, const char* name) {
  const local::UniqueFd fd(openat(dirFd, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat info = {};
  if (!fd.IsOpen() || fstat(fd.Get(), &info) != 0) return false;
  if (KindOf(info.st_mode) == Kind::kOther) {
    errno = S_ISLNK(info.st_mode) ? ELOOP : EINVAL;
    return false;
  }
  return fchownat(fd.Get(), "", geteuid(), getegid(), AT_EMPTY_PATH) == 0;
}

}  // namespace

int GetDirsInDir(const std::string& dir, std::list<std::string>& dirs, bool recursive, bool hidden,
                 const std::string& suffix) {
  return List(dir, Kind::kDir, dirs, recursive, hidden, suffix);
}

int GetFilesInDir(const std::string& dir, std::list<std::string>& files, bool recursive, bool hidden,
                  const std::string& suffix) {
  return List(dir, Kind::kFile, files, recursive, hidden, suffix);
}

int SetFileOwnerToVy(const std::string& path, bool recursive) {
  if (path.find('\0') != std::string::npos) {
    errno = EINVAL;
    return -1;
  }
  std::string name = path;
  while (name.size() > 1 && name.back() == '/') name.pop_back();  // the target of "link/" would be taken
  if (!TakeOwnership(AT_FDCWD, name.c_str())) return -1;
  if (!recursive) return 0;
  const local::UniqueFd root(open(name.c_str(), kOpenDir | O_NOFOLLOW));
  if (!root.IsOpen()) return errno == ENOTDIR ? 0 : -1;
  int error = 0;
  const int result = Walker(root.Get()).Run([&error](int dirFd, const char* entry, const std::string&, Kind kind) {
    if (kind != Kind::kOther && !TakeOwnership(dirFd, entry) && error == 0) error = errno;
    return true;
  });
  if (error != 0) errno = error;
  return error == 0 ? result : -1;
}
