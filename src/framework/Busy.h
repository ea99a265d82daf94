// In which slot a rovik is and since when, for whoever asks from outside.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include "Clock.h"

namespace drovane {

struct Busy {
  const char* slot;    // its name, a literal
  std::int64_t since;  // nanoseconds of Clock, to one tick of the kernel's clock
};

// One thread at a time, the one that is inside the rovik, says where it is; any thread looks.
class BusySign {
 public:
  std::optional<Busy> look() const {
    const char* const now = slot.load(std::memory_order_acquire);
    if (now == nullptr) return std::nullopt;
    return Busy{now, since.load(std::memory_order_relaxed)};
  }

  // Being in a slot, or in one after the other with nothing that could take long between them. It
  // may happen within another one, which then begins anew.
  class In {
   public:
    In(BusySign& its_sign, const char* slot_name, std::int64_t begun)
        : sign(its_sign), outer(sign.slot.load(std::memory_order_relaxed)) {
      sign.put(slot_name, begun);
    }
    ~In() {
      if (outer == nullptr)
        sign.slot.store(nullptr, std::memory_order_relaxed);
      else
        sign.put(outer, Clock::coarse());
    }
    In(const In&) = delete;
    In& operator=(const In&) = delete;

   private:
    BusySign& sign;
    const char* const outer;
  };

 private:
  // In this order: whoever sees the slot sees no time from before it.
  void put(const char* slot_name, std::int64_t begun) {
    since.store(begun, std::memory_order_relaxed);
    slot.store(slot_name, std::memory_order_release);
  }

  std::atomic<const char*> slot{nullptr};
  std::atomic<std::int64_t> since{0};
};

}  // namespace drovane
