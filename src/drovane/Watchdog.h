// Notices roviks that do not come back from one of their slots.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "framework/Busy.h"
#include "framework/House.h"

namespace drovane {

// Some waits of this length are as they should be (a request for an answer takes up to 5 s, a
// silent peer's handshake has no bound), so it says what it sees and does nothing about it. One
// thread, which looks about once a second.
class Watchdog {
 public:
  static constexpr std::chrono::seconds kPatience{10};

  // One rovik in one slot.
  struct Stay {
    std::string rovik;  // "5 boiler"
    Busy busy;
    int seconds() const;
  };

  // Looks at every rovik, and logs, and warns of, those that have been in one slot for kPatience;
  // once each time, and logs when they have come back.
  void look(const House& house);

  // What the last look has seen: how many do not come back, and who has been in one slot longest,
  // however short.
  std::size_t hanging() const { return hangs.size(); }
  const std::optional<Stay>& longest() const { return longest_stay; }

 private:
  void lookAt(const House::Member& member);
  void endHang(const House::Member& member, const std::optional<Busy>& busy);

  std::map<int, Busy> hangs;  // those that were reported, by the rovik's id
  std::optional<Stay> longest_stay;
};

}  // namespace drovane
