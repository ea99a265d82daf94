// A piece of work on a thread of its own, so that the main thread can watch the clock and the
// signals meanwhile.
#pragma once

#include <functional>

#include "Thread.h"
#include "framework/Descriptor.h"

namespace drovane {

class Phase final : public Thread {
 public:
  // Starts at once. `label` names the thread. Throws std::system_error.
  Phase(const char* label, std::function<void()> its_work);
  // Waits for the work.
  ~Phase() override;

  // Readable when the work is done.
  int descriptor() const { return event.get(); }

 private:
  int main() override;

  const std::function<void()> work;
  Descriptor event;
};

}  // namespace drovane
