#include "archiving/internal/plainfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mediautil {
namespace {

constexpr int kReadFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

// Part by part: only the last part of a path can be kept from being a link by a flag.
int OpenBelow(const std::string& dir, const std::string& rest) {
  int at = open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  std::size_t begin = rest.find_first_not_of('/');
  while (at >= 0 && begin != std::string::npos) {
    const std::size_t end = rest.find('/', begin);
    const std::size_t next = end == std::string::npos ? end : rest.find_first_not_of('/', end);
    const std::string part = rest.substr(begin, end - begin);
    const int flags = next == std::string::npos ? kReadFlags : O_PATH | O_DIRECTORY | O_CLOEXEC;
    const int fd = openat(at, part.c_str(), flags | O_NOFOLLOW);
    close(at);
    at = fd;
    begin = next;
  }
  return at;
}

}  // namespace

FilePtr OpenPlainFile(const std::string& path, const std::string& below) {
  const bool isBelow = !below.empty() && path.compare(0, below.size(), below) == 0;
  const int fd = isBelow ? OpenBelow(below, path.substr(below.size())) : open(path.c_str(), kReadFlags);
  struct stat status = {};
  FilePtr file(fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode) ? fdopen(fd, "rb") : nullptr);
  if (file != nullptr) {
    std::setvbuf(file.get(), nullptr, _IONBF, 0);
  } else if (fd >= 0) {
    close(fd);
  }
  return file;
}

}  // namespace mediautil
