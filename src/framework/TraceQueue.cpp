#include "TraceQueue.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Clock.h"
#include "TimeValue.h"

namespace drovane {

void TraceQueue::put(LinkTap::Event what, std::string_view bytes) {
  timeval now{};
  TimeValue::getCurrentSystemTime(now);
  Event event{what, 0, Clock::now(), now.tv_sec, static_cast<std::int32_t>(now.tv_usec / 1000)};
  {
    MutexLock guard(lock);
    do {
      const std::string_view piece = bytes.substr(0, kPiece);
      event.length = piece.size();
      add(event, piece);
      bytes.remove_prefix(piece.size());
    } while (!bytes.empty());
  }
  waker->wake();
}

// For want of memory an event is dropped like one for want of room. After one that was dropped so
// are all others until somebody takes, so that what is missing is missing in one place.
void TraceQueue::add(const Event& event, std::string_view bytes) {
  const std::size_t before = queued.bytes.size();
  const bool room = queued.dropped == 0 && queued.events.size() < kMostEvents &&
                    before + bytes.size() <= kMostBytes;
  try {
    if (room) {
      queued.bytes += bytes;
      queued.events.push_back(event);
      return;
    }
  } catch (const std::bad_alloc&) {
    queued.bytes.resize(before);
  }
  ++queued.dropped;
  queued.dropped_bytes += bytes.size();
}

void TraceQueue::end() {
  {
    MutexLock guard(lock);
    over = true;
  }
  waker->wake();
}

bool TraceQueue::waiting() const {
  MutexLock guard(lock);
  return over || queued.dropped > 0 || !queued.events.empty();
}

bool TraceQueue::ended() const {
  MutexLock guard(lock);
  return over;
}

bool TraceQueue::drained() const {
  MutexLock guard(lock);
  return over && queued.dropped == 0 && queued.events.empty();
}

void TraceQueue::take(Batch& batch) {
  batch.events.clear();
  batch.bytes.clear();
  batch.dropped = batch.dropped_bytes = 0;
  MutexLock guard(lock);
  std::swap(batch, queued);
}

void TraceTap::see(Event event, std::string_view bytes) {
  if (event == Event::Opened || event == Event::Closed) return change(event);
  if (bytes.empty()) return;
  change(Event::Opened);
  queue->put(event, bytes);
}

void TraceTap::change(Event event) {
  const bool opens = event == Event::Opened;
  if (std::exchange(open, opens) != opens) queue->put(event, {});
}

}  // namespace drovane
