// What a rovik's link has carried: counted for the status display, shown to whoever traces it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "LinkTap.h"
#include "Mutex.h"

namespace drovane {

// One thread at a time, the one that is inside the rovik, tells; any thread asks.
class LinkTraffic {
 public:
  // A unit is what the plug-in handles as one: a line, a datagram, a text for the peer.
  static constexpr std::size_t kShownUnit = 80;  // bytes of the last one's text that are kept

  struct Direction {
    std::uint64_t bytes = 0;
    std::uint64_t units = 0;
    std::string last;            // the beginning of the last unit, escaped
    std::int64_t last_time = 0;  // nanoseconds of Clock; 0 when there was none
  };
  struct Figures {
    Direction in;
    Direction out;
    std::uint64_t dropped = 0;      // units without an end
    std::int64_t link_changed = 0;  // when the link last came up or went, nanoseconds of Clock
  };

  LinkTraffic();

  // --- The thread inside the rovik ---

  void received(std::string_view bytes);
  void sent(std::string_view bytes);
  // `count` units have been made of what was received; `last` is escaped.
  void unitsReceived(std::uint64_t count, std::string_view last);
  void unitDropped() { add(dropped, 1); }
  void linkChanged(bool open);
  // How the link is, for the tap: one that was opened and closed in one go has not changed.
  void linkIs(bool open);

  // --- Any thread ---

  Figures figures() const;

  // Shows the tap every event from now on; null ends that. When it has returned, the tap that was
  // there before is not called any more.
  void setTap(std::shared_ptr<LinkTap> its_tap);

 private:
  struct Counter {
    std::atomic<std::uint64_t> bytes{0};
    std::atomic<std::uint64_t> units{0};
    std::string last;            // guarded by the lock
    std::int64_t last_time = 0;  // likewise
  };

  // There is one writer, so no addition gets lost.
  static void add(std::atomic<std::uint64_t>& count, std::uint64_t more) {
    count.store(count.load(std::memory_order_relaxed) + more, std::memory_order_relaxed);
  }
  void keep(Counter& counter, std::string_view unit);
  Direction direction(const Counter& counter) const;
  void show(LinkTap::Event event, std::string_view bytes);

  Counter in;
  Counter out;
  std::atomic<std::uint64_t> dropped{0};
  std::atomic<std::int64_t> link_changed{0};
  std::string sent_text;  // of the unit in hand
  std::atomic<bool> tapped{false};
  mutable Mutex lock;  // held for a short copy, or while the tap sees an event
  std::shared_ptr<LinkTap> tap DROVANE_GUARDED_BY(lock);
};

}  // namespace drovane
