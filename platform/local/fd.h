// Owner of a file descriptor.
#pragma once

#include <unistd.h>

namespace local {

class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : m_fd(fd) {}
  ~UniqueFd() { Close(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  bool IsOpen() const { return m_fd >= 0; }
  int Get() const { return m_fd; }
  // Closes now; the result is that of close(2), 0 when nothing is open.
  int Close() {
    const int fd = m_fd;
    m_fd = -1;
    return fd < 0 ? 0 : close(fd);
  }

 private:
  int m_fd;
};

}  // namespace local
