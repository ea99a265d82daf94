// The thread that a rovik runs on.
#pragma once

#include <pthread.h>

#include <atomic>

// Owns one thread of the operating system. `main` is its body; `start` and `stop` bracket it.
//
//   constructed --start()--> running main() --stop()--> joined
//
// start and stop are called by the owner of the object, from one thread at a time and never from
// inside main.
class Thread {
 public:
  Thread();
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // The thread body; its result is not used.
  virtual int main() = 0;

  // The thread must have been stopped: a derived object is half gone by the time this runs.
  virtual ~Thread();

  // Asks the thread to end and waits until it has. 0 when it ended or never ran.
  virtual int stop();

  // Starts the thread, with every signal blocked and `label` (cut to 15 characters) as the name
  // that ps and top show. 0, or the error number of pthread_create(3).
  int start(const char* label);

  // True from the start of stop() on; a body that loops ends when it sees this.
  bool stopping() const { return asked.load(std::memory_order_seq_cst); }

 protected:
  // Lets stopping() return true without waiting for the thread. Whoever then looks whether the
  // thread sleeps, to wake it, and the thread that looks at stopping() before it sleeps, cannot
  // miss each other.
  void askToStop() { asked.store(true, std::memory_order_seq_cst); }

 private:
  static void* body(void* birth);

  pthread_t handle;
  bool started;
  std::atomic<bool> asked;
};
