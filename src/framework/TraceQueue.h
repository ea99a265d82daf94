// The events of one link on their way from the rovik's thread to the control thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "LinkTap.h"
#include "Mutex.h"
#include "Waker.h"

namespace drovane {

class TraceQueue {
 public:
  // Beyond these what comes is counted instead, so that neither memory nor the link suffers.
  static constexpr std::size_t kMostEvents = 16384;
  static constexpr std::size_t kMostBytes = 1024 * 1024;
  // What was read or written in one go and is longer becomes several events.
  static constexpr std::size_t kPiece = 4096;

  struct Event {
    LinkTap::Event what = LinkTap::Event::Opened;
    std::size_t length = 0;    // of its bytes
    std::int64_t tick = 0;     // nanoseconds of Clock
    std::int64_t seconds = 0;  // since 1970
    std::int32_t milliseconds = 0;
  };

  // What has come since the last time, and behind it what was dropped.
  struct Batch {
    std::vector<Event> events;
    std::string bytes;  // of all events, in their order
    std::uint64_t dropped = 0;
    std::uint64_t dropped_bytes = 0;
  };

  explicit TraceQueue(std::shared_ptr<Waker> its_waker) : waker(std::move(its_waker)) {}

  // --- The tap, on one thread at a time ---

  // Does not wait for the one that takes.
  void put(LinkTap::Event what, std::string_view bytes);
  // Nothing more will come: the rovik is gone, or was given another tap.
  void end();

  // --- The control thread ---

  // True when something has come, or the end.
  bool waiting() const;
  // Moves everything that has come into `batch`, whose old content goes.
  void take(Batch& batch);
  // True when the end has come. What came before may still wait, unless it is drained.
  bool ended() const;
  bool drained() const;

 private:
  void add(const Event& event, std::string_view bytes) DROVANE_REQUIRES(lock);

  const std::shared_ptr<Waker> waker;
  mutable Mutex lock;
  Batch queued DROVANE_GUARDED_BY(lock);
  bool over DROVANE_GUARDED_BY(lock) = false;
};

// Hands what it sees to a queue, and ends it with its own life. What comes out is in order: the
// link opens before bytes go over it, and closes afterwards.
class TraceTap final : public LinkTap {
 public:
  // `link_open`: as the link is now.
  TraceTap(std::shared_ptr<TraceQueue> its_queue, bool link_open)
      : queue(std::move(its_queue)), open(link_open) {}
  ~TraceTap() override { queue->end(); }

  void see(Event event, std::string_view bytes) override;

 private:
  void change(Event event);

  const std::shared_ptr<TraceQueue> queue;
  bool open;
};

}  // namespace drovane
