// Platform interface: the mutex, and locks between processes.
#pragma once

#include <pthread.h>

#include <string>

#include "platform/export.h"

// A plain, non-recursive mutex.
class VY_API VyMutex {
 public:
  VyMutex();
  ~VyMutex();
  VyMutex(const VyMutex&) = delete;
  VyMutex& operator=(const VyMutex&) = delete;

  // Take it, waiting as long as it takes, and give it back.
  void Lock();
  void Unlock();

 private:
  pthread_mutex_t m_mutex;
};

// Holds a mutex for the length of a scope.
class VyMutexGuard {
 public:
  // Takes the mutex.
  explicit VyMutexGuard(VyMutex& mutex) : m_mutex(mutex) { m_mutex.Lock(); }
  ~VyMutexGuard() { m_mutex.Unlock(); }
  VyMutexGuard(const VyMutexGuard&) = delete;
  VyMutexGuard& operator=(const VyMutexGuard&) = delete;

 private:
  VyMutex& m_mutex;
};

// A lock between processes on a file that stands for nothing else: flock(2), close-on-exec. The first lock call opens
// the file; when it is absent it is made with 0640, whatever the umask, and by root for the owner and the group of the
// directory. A symbolic link, or anything but a regular file, is refused. The lock goes with the object and, at the
// latest, with the process. A child that was forked meanwhile shares it: it keeps the lock when this process is killed,
// and gives it back for both when it destroys its copy. One thread uses an instance.
class VY_API VyFlock {
 public:
  // Nothing is opened or locked yet.
  explicit VyFlock(const std::string& path);
  ~VyFlock();
  VyFlock(const VyFlock&) = delete;
  VyFlock& operator=(const VyFlock&) = delete;

  // Take the lock, shared or for this one alone, in place of what was held. timeoutMs: milliseconds to wait, negative
  // for as long as it takes; 0 only tries. 0 on success; -1 with errno set, EWOULDBLOCK when the time is over; what was
  // held may be lost then.
  int LockSh(int timeoutMs);
  int LockEx(int timeoutMs);
  // Gives the lock back. 0, also when nothing was held; -1 with errno set.
  int UnLock();

 private:
  int Lock(int operation, int timeoutMs);

  const std::string m_path;
  int m_fd = -1;
};
