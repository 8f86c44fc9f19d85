#include "platform/local/readfile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "platform/local/fd.h"

namespace local {

int OpenRegularFile(const std::string& path, int flags, mode_t mode) {
  const bool isPath = path.find('\0') == std::string::npos;
  const int fd = isPath ? open(path.c_str(), O_CLOEXEC | O_NONBLOCK | O_NOCTTY | flags, mode) : -1;
  struct stat info = {};
  if ((isPath && fd < 0) || (fstat(fd, &info) == 0 && S_ISREG(info.st_mode))) return fd;
  if (fd >= 0) close(fd);
  errno = EINVAL;
  return -1;
}

bool ReadRegularFile(const std::string& path, int flags, std::size_t limit, std::string& bytes) {
  struct stat info = {};
  const UniqueFd fd(OpenRegularFile(path, O_RDONLY | flags));
  if (!fd.IsOpen() || fstat(fd.Get(), &info) != 0) return false;
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
