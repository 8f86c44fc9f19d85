// Platform interface: the mutex.
#pragma once

#include <pthread.h>

#include "platform/export.h"

// A plain, non-recursive mutex.
class VY_API VyMutex {
 public:
  VyMutex();
  ~VyMutex();
  VyMutex(const VyMutex&) = delete;
  VyMutex& operator=(const VyMutex&) = delete;

  void Lock();
  void Unlock();

 private:
  pthread_mutex_t m_mutex;
};

// Holds a mutex for the length of a scope.
class VyMutexGuard {
 public:
  explicit VyMutexGuard(VyMutex& mutex) : m_mutex(mutex) { m_mutex.Lock(); }
  ~VyMutexGuard() { m_mutex.Unlock(); }
  VyMutexGuard(const VyMutexGuard&) = delete;
  VyMutexGuard& operator=(const VyMutexGuard&) = delete;

 private:
  VyMutex& m_mutex;
};
