#include "Phase.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include "Drovane.h"
#include "framework/Log.h"

namespace drovane {

Phase::Phase(const char* label, std::function<void()> its_work, Begin when)
    : work(std::move(its_work)),
      wanted(when == Begin::AtOnce),
      event(moveAboveLinks(Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)))) {
  if (!event) throw std::system_error(errno, std::generic_category(), "eventfd");
  const int error = start(label);
  if (error != 0) throw std::system_error(error, std::generic_category(), "pthread_create");
  if (wanted) turn.release();
}

Phase::~Phase() {
  if (!wanted) turn.release();
  Thread::stop();
}

void Phase::begin() {
  wanted = true;
  turn.release();
}

int Phase::main() {
  turn.acquire();
  try {
    if (wanted) work();
  } catch (const std::exception& error) {
    Drovane::global.log(LOG_LEVEL_ERROR, kFrameworkId, kFrameworkName, "exception: %s\n",
                        error.what());
  }
  // A new eventfd takes a 1 without waiting.
  eventfd_write(event.get(), 1);
  return 0;
}

}  // namespace drovane
