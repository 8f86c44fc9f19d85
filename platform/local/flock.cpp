#include "platform/sync.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "platform/file.h"
#include "platform/local/readfile.h"

namespace {

using Clock = std::chrono::steady_clock;

int TryLock(int fd, int operation) {
  int result = 0;
  do {
    result = flock(fd, operation);
  } while (result != 0 && errno == EINTR);
  return result;
}

// flock(2) knows no time limit, and a signal that ends its wait may go to another thread.
int LockUntil(int fd, int operation, Clock::time_point end) {
  constexpr auto kLongestPause = std::chrono::milliseconds(10);
  Clock::duration pause = std::chrono::microseconds(100);
  while (TryLock(fd, operation | LOCK_NB) != 0) {
    const Clock::duration left = end - Clock::now();
    if (errno != EWOULDBLOCK || left <= Clock::duration::zero()) return -1;
    std::this_thread::sleep_for(std::min(pause, left));
    pause = std::min<Clock::duration>(2 * pause, kLongestPause);
  }
  return 0;
}

// Whatever the umask; what root makes goes to the owner of the directory, whose processes it would keep out else. A
// file system that has no owners is no reason to fail.
bool ShareLike(const std::string& directory, int fd) {
  struct stat info = {};
  return fchmod(fd, 0640) == 0 &&
         (geteuid() != 0 || (stat(directory.c_str(), &info) == 0 && fchown(fd, info.st_uid, info.st_gid) == 0));
}

// Asks for a new file only where there is none: some systems refuse to open those of others with O_CREAT.
int OpenLock(const std::string& path) {
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW;
  int fd = local::OpenRegularFile(path, kFlags);
  if (fd >= 0 || errno != ENOENT) return fd;
  fd = local::OpenRegularFile(path, kFlags | O_CREAT | O_EXCL, 0640);
  if (fd < 0) return errno == EEXIST ? local::OpenRegularFile(path, kFlags) : -1;
  const std::string directory = GetDirPath(path);
  ShareLike(directory.empty() ? "." : directory, fd);
  return fd;
}

}  // namespace

VyFlock::VyFlock(const std::string& path) : m_path(path) {}

// Closing alone would leave the lock to a child that was forked meanwhile.
VyFlock::~VyFlock() {
  if (m_fd < 0) return;
  flock(m_fd, LOCK_UN);
  close(m_fd);
}

int VyFlock::LockSh(int timeoutMs) {
  return Lock(LOCK_SH, timeoutMs);
}

int VyFlock::LockEx(int timeoutMs) {
  return Lock(LOCK_EX, timeoutMs);
}

int VyFlock::UnLock() {
  return m_fd < 0 ? 0 : flock(m_fd, LOCK_UN);
}

int VyFlock::Lock(int operation, int timeoutMs) {
  if (m_fd < 0) m_fd = OpenLock(m_path);
  if (m_fd < 0) return -1;
  return timeoutMs < 0 ? TryLock(m_fd, operation)
                       : LockUntil(m_fd, operation, Clock::now() + std::chrono::milliseconds(timeoutMs));
}
