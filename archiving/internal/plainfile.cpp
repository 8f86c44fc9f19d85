#include "archiving/internal/plainfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/file.h"

namespace mediautil {
namespace {

constexpr int kReadFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr int kDirFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;

// Part by part: only the last part of a path can be kept from being a link by a flag.
int OpenBelow(const std::string& dir, const std::string& rest, int lastFlags) {
  int at = open(dir.c_str(), kDirFlags);
  std::size_t begin = rest.find_first_not_of('/');
  while (at >= 0 && begin != std::string::npos) {
    const std::size_t end = rest.find('/', begin);
    const std::size_t next = end == std::string::npos ? end : rest.find_first_not_of('/', end);
    const std::string part = rest.substr(begin, end - begin);
    const int fd = openat(at, part.c_str(), (next == std::string::npos ? lastFlags : kDirFlags) | O_NOFOLLOW);
    close(at);
    at = fd;
    begin = next;
  }
  return at;
}

bool IsBelow(const std::string& path, const std::string& dir) {
  return !dir.empty() && path.compare(0, dir.size(), dir) == 0;
}

int OpenFile(const std::string& path, const std::string& below) {
  if (path.find('\0') != std::string::npos) {
    return -1;
  }
  return IsBelow(path, below) ? OpenBelow(below, path.substr(below.size()), kReadFlags)
                              : open(path.c_str(), kReadFlags);
}

}  // namespace

FilePtr OpenPlainFile(const std::string& path, const std::string& below) {
  const int fd = OpenFile(path, below);
  struct stat status = {};
  FilePtr file(fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode) ? fdopen(fd, "rb") : nullptr);
  if (file != nullptr) {
    std::setvbuf(file.get(), nullptr, _IONBF, 0);
  } else if (fd >= 0) {
    close(fd);
  }
  return file;
}

int TakeOwnership(const std::string& path, const std::string& below) {
  if (!IsBelow(path, below)) {
    return SetFileOwnerToVy(path, false);
  }
  // By the directory that holds it, kept open: nobody can lead the path elsewhere.
  const std::string rest = path.substr(below.size());
  const std::size_t name = rest.rfind('/') + 1;
  const int dir = OpenBelow(below, rest.substr(0, name), kDirFlags);
  if (dir < 0) {
    return -1;
  }
  const int result = SetFileOwnerToVy("/proc/self/fd/" + std::to_string(dir) + "/" + rest.substr(name), false);
  close(dir);
  return result;
}

}  // namespace mediautil
