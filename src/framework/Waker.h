// Wakes a thread that sleeps in poll(2), and costs next to nothing while it is awake.
#pragma once

#include <atomic>

#include "Descriptor.h"

namespace drovane {

// The sleeper's side, in this order:
//
//   waker.aboutToSleep();
//   if (nothing to do) poll(… waker.descriptor() readable …);
//   waker.awake(poll found it readable);
//
// Whoever gives it work publishes the work first and then calls wake(). One thread sleeps; any
// thread wakes.
class Waker {
 public:
  // Throws std::system_error when no descriptor can be had.
  Waker();

  int descriptor() const { return event.get(); }
  void aboutToSleep() { asleep.store(true, std::memory_order_seq_cst); }
  // `rang`: the descriptor was readable. Most naps end because of a link, and then there is nothing
  // to read.
  void awake(bool rang);
  void wake();

 private:
  Descriptor event;
  std::atomic<bool> asleep{false};
};

}  // namespace drovane
