#include "support/Wait.h"

#include <poll.h>

#include <cerrno>

namespace fuzzing {

bool await(int descriptor, short events, int milliseconds) {
  pollfd watched{descriptor, events, 0};
  int ready = 0;
  do ready = ::poll(&watched, 1, milliseconds);
  while (ready < 0 && errno == EINTR);
  return ready == 1;
}

}  // namespace fuzzing
