// A piece of work on a thread of its own, so that the main thread can watch the clock and the
// signals meanwhile.
#pragma once

#include <atomic>
#include <functional>
#include <semaphore>

#include "Thread.h"
#include "framework/Descriptor.h"

namespace drovane {

class Phase final : public Thread {
 public:
  enum class Begin { AtOnce, WhenTold };

  // `label` names the thread. Throws std::system_error. What must not fail later, when descriptors
  // or memory may have run out, is made early and told to begin then.
  Phase(const char* label, std::function<void()> its_work, Begin when = Begin::AtOnce);
  // Waits for the work. It is not done any more if it has not been begun.
  ~Phase() override;

  // Once.
  void begin();

  // Readable when the work is done.
  int descriptor() const { return event.get(); }

 private:
  int main() override;

  const std::function<void()> work;
  std::atomic<bool> wanted;
  std::binary_semaphore turn{0};
  Descriptor event;
};

}  // namespace drovane
