#include "platform/sync.h"

VyMutex::VyMutex() : m_mutex(PTHREAD_MUTEX_INITIALIZER) {}

VyMutex::~VyMutex() {
  pthread_mutex_destroy(&m_mutex);
}

void VyMutex::Lock() {
  pthread_mutex_lock(&m_mutex);
}

void VyMutex::Unlock() {
  pthread_mutex_unlock(&m_mutex);
}
