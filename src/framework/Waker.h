// Wakes a thread that sleeps in poll(2), and costs next to nothing while it is awake.
#pragma once

#include <atomic>

#include "Descriptor.h"

namespace drovane {

// The sleeper's side, in this order:
//
//   waker.aboutToSleep();
//   if (nothing to do) poll(… waker.descriptor() readable …);
//   waker.awake();
//
// Whoever gives it work publishes the work first and then calls wake(). One thread sleeps; any
// thread wakes.
class Waker {
 public:
  // Throws std::system_error when no descriptor can be had.
  Waker();

  int descriptor() const { return event.get(); }
  void aboutToSleep() { asleep.store(true, std::memory_order_seq_cst); }
  void awake();
  void wake();

 private:
  Descriptor event;
  std::atomic<bool> asleep{false};
  std::atomic<bool> rung{false};
};

}  // namespace drovane
