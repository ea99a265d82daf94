#include "Waker.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>

namespace drovane {

Waker::Waker() : event(moveAboveLinks(Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)))) {
  if (!event) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void Waker::awake(bool rang) {
  asleep.store(false, std::memory_order_relaxed);
  if (!rang) return;
  eventfd_t count = 0;
  eventfd_read(event.get(), &count);
}

void Waker::wake() {
  if (!asleep.load(std::memory_order_seq_cst)) return;
  if (!asleep.exchange(false, std::memory_order_acq_rel)) return;
  // A non-blocking eventfd can only refuse when its count is at the limit, and then it is readable.
  // The sleeper may be up already by the time it rings: its next nap is then a short one.
  eventfd_write(event.get(), 1);
}

}  // namespace drovane
