// A lock, and the scope guard that holds it.
#pragma once

#include <pthread.h>

#include "ThreadSafety.h"

// A recursive POSIX mutex (pthread_mutex_lock(3p), PTHREAD_MUTEX_RECURSIVE): the thread that
// holds it may lock it again, so a script function that is called back while another one runs
// on the same thread does not wait for itself. Any thread may call; every lock() that returned
// true needs one unlock() by the same thread.
class DROVANE_CAPABILITY("mutex") Mutex {
 public:
  Mutex();
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  // Waits until the lock is free. False when it could not be taken: the mutex was not
  // initialised, or was locked too often by this thread (EAGAIN).
  bool lock() DROVANE_ACQUIRE();
  void unlock() DROVANE_RELEASE();

 private:
  bool initialized;
  pthread_mutexattr_t theLockAttr;
  pthread_mutex_t theLock;
};

// Holds a Mutex from construction to destruction, on every way out of the scope.
class DROVANE_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& lock) DROVANE_ACQUIRE(lock) : mutex(lock) { mutex.lock(); }
  ~MutexLock() DROVANE_RELEASE() { mutex.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex;
};
