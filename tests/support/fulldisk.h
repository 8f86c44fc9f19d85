// A disk that gets full.
#pragma once

#include <sys/resource.h>

#include <csignal>

// A disk on which no file gets longer than that; -1 for any length.
class FullDisk {
 public:
  explicit FullDisk(int bytes) : m_before(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &m_limit);
    const rlimit full = {static_cast<rlim_t>(bytes), m_limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
  }
  ~FullDisk() {
    setrlimit(RLIMIT_FSIZE, &m_limit);
    std::signal(SIGXFSZ, m_before);
  }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;

 private:
  void (*m_before)(int);
  rlimit m_limit = {};
};
