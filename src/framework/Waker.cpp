#include "Waker.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>

namespace drovane {

Waker::Waker() : event(moveAboveLinks(Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)))) {
  if (!event) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void Waker::awake() {
  asleep.store(false, std::memory_order_relaxed);
  // Only a bell that was rung has to be silenced: most naps end because of the link.
  if (!rung.exchange(false, std::memory_order_acquire)) return;
  eventfd_t count = 0;
  eventfd_read(event.get(), &count);
}

void Waker::wake() {
  if (!asleep.load(std::memory_order_seq_cst)) return;
  if (!asleep.exchange(false, std::memory_order_acq_rel)) return;
  // A non-blocking eventfd can only refuse when its count is at the limit, and then it is readable.
  eventfd_write(event.get(), 1);
  rung.store(true, std::memory_order_release);
}

}  // namespace drovane
