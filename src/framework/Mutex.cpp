#include "Mutex.h"

Mutex::Mutex() : initialized(false) {
  if (pthread_mutexattr_init(&theLockAttr) != 0) return;
  pthread_mutexattr_settype(&theLockAttr, PTHREAD_MUTEX_RECURSIVE);
  initialized = pthread_mutex_init(&theLock, &theLockAttr) == 0;
}

Mutex::~Mutex() {
  if (initialized) pthread_mutex_destroy(&theLock);
  pthread_mutexattr_destroy(&theLockAttr);
}

bool Mutex::lock() { return initialized && pthread_mutex_lock(&theLock) == 0; }

void Mutex::unlock() {
  if (initialized) pthread_mutex_unlock(&theLock);
}
