#include "platform/file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "platform/local/fd.h"

namespace {

std::string DirOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash + 1);
}

// No other living thread has it: thread ids are unique in a PID namespace, of which containers have their own.
std::string ThreadName() {
  struct stat space = {};
  const bool isKnown = stat("/proc/self/ns/pid", &space) == 0;
  return std::to_string(isKnown ? space.st_ino : 0) + "-" + std::to_string(gettid());
}

// open(2) rather than mkostemp(3): the kernel applies the umask, which a library cannot read without changing it for
// all threads. What has the name was left by a killed process; the next one is for where it cannot be removed.
int CreateTemporary(const std::string& dir, mode_t mode, std::string& name) {
  constexpr int kAttempts = 1000;
  const std::string begin = dir + "/.write-" + ThreadName() + "-";
  int fd = -1;
  for (int i = 0; i < kAttempts; ++i) {
    name = begin + std::to_string(i);
    unlink(name.c_str());
    fd = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd >= 0 || errno != EEXIST) break;
  }
  return fd;
}

bool WriteAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

// The rename is done and cannot be taken back, so a directory that cannot be synced is no failure.
void SyncDir(const std::string& dir) {
  const local::UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.IsOpen()) fsync(fd.Get());
}

}  // namespace

int WriteContentFromBufToFile(const char* data, unsigned int size, bool sync, const std::string& path) {
  if ((data == nullptr && size > 0) || path.empty() || path.find('\0') != std::string::npos) {
    errno = EINVAL;
    return -1;
  }
  struct stat old = {};
  const bool exists = lstat(path.c_str(), &old) == 0;
  if (exists && !S_ISREG(old.st_mode) && !S_ISLNK(old.st_mode)) {
    errno = EEXIST;
    return -1;
  }
  const bool keepMode = exists && S_ISREG(old.st_mode);
  const mode_t mode = keepMode ? old.st_mode & 0777 : 0666;
  const std::string dir = DirOf(path);
  std::string temporary;
  local::UniqueFd fd(CreateTemporary(dir, mode, temporary));
  if (!fd.IsOpen()) return -1;

  if (WriteAll(fd.Get(), data, size) && (!keepMode || fchmod(fd.Get(), mode) == 0) && (!sync || fsync(fd.Get()) == 0) &&
      fd.Close() == 0 && rename(temporary.c_str(), path.c_str()) == 0) {
    if (sync) SyncDir(dir);
    return 0;
  }
  const int error = errno;
  unlink(temporary.c_str());
  errno = error;
  return -1;
}

long long GetFileSize(const std::string& path) {
  struct stat info = {};
  if (path.find('\0') != std::string::npos || stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return -1;
  return info.st_size;
}

std::string GetBaseName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);  // npos + 1 is 0
}

std::string GetDirPath(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return "";
  const std::size_t last = path.find_last_not_of('/', slash);
  return last == std::string::npos ? "/" : path.substr(0, last + 1);
}

namespace {

// With 0750, whatever the umask. A group that the directory hands on to what is made in it stays so.
int MakeDir(const std::string& path) {
  struct stat info = {};
  if (mkdir(path.c_str(), 0750) != 0) return -1;
  const bool isShort = stat(path.c_str(), &info) == 0 && (info.st_mode & 0777) != 0750;
  return isShort ? chmod(path.c_str(), (info.st_mode & S_ISGID) | 0750) : 0;
}

}  // namespace

int MakeDirIfNotExist(const std::string& path) {
  if (path.find('\0') != std::string::npos) {
    errno = EINVAL;
    return -1;
  }
  struct stat info = {};
  if (stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return 0;

  int result = -1;
  std::size_t end = 0;
  do {
    end = path.find('/', end + 1);
    result = MakeDir(path.substr(0, end));
  } while (end != std::string::npos);
  if (result == 0) return 0;

  const int error = errno;
  const bool exists = error == EEXIST && stat(path.c_str(), &info) == 0;
  if (exists && S_ISDIR(info.st_mode)) return 0;
  errno = exists ? ENOTDIR : error;
  return -1;
}
