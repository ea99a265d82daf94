#include "Descriptor.h"

#include <fcntl.h>
#include <sys/select.h>

namespace drovane {

Descriptor moveAboveLinks(Descriptor low) {
  if (!low || low.get() >= FD_SETSIZE) return low;
  Descriptor high(fcntl(low.get(), F_DUPFD_CLOEXEC, FD_SETSIZE));
  return high ? std::move(high) : std::move(low);
}

}  // namespace drovane
