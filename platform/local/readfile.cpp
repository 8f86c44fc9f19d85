#include "platform/local/readfile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "platform/local/fd.h"

namespace local {

bool ReadRegularFile(const std::string& path, int flags, std::size_t limit, std::string& bytes) {
  struct stat info = {};
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | flags));
  if (!fd.IsOpen() || fstat(fd.Get(), &info) != 0) return false;
  if (!S_ISREG(info.st_mode)) {
    errno = EINVAL;
    return false;
  }
  const auto fileSize = static_cast<unsigned long long>(info.st_size);
  std::string buffer(static_cast<std::size_t>(std::min<unsigned long long>(limit, fileSize)), '\0');
  std::size_t size = 0;
  while (size < buffer.size()) {
    const ssize_t got = read(fd.Get(), &buffer[size], buffer.size() - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) break;
    size += static_cast<std::size_t>(got);
  }
  buffer.resize(size);
  bytes = std::move(buffer);
  return true;
}

}  // namespace local
