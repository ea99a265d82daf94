#include "Mailbox.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Drovane.h"
#include "Log.h"
#include "RecordPool.h"

namespace drovane {

Mailbox::Mailbox(int its_id, std::string its_name, std::shared_ptr<Waker> its_waker)
    : id(its_id), name(std::move(its_name)), waker(std::move(its_waker)) {}

Mailbox::~Mailbox() { close(); }

bool Mailbox::isReply(const RovikMessage& msg) const {
  if (expected == 0 || msg.seqnr != expected) return false;
  const bool addressed = msg.dst != NO_DESTINATION || !msg.dst_s.empty();
  return addressed && (msg.type == MM_DATA || msg.type == MM_CMD_RESPONSE);
}

bool Mailbox::enqueue(std::span<RovikMessage* const> messages) {
  try {
    queue.insert(queue.end(), messages.begin(), messages.end());
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

// Nearly always there is nothing to be said about any of them.
bool Mailbox::acceptAll(std::span<RovikMessage* const> messages) {
  const std::size_t waiting = depthLocked();
  if (expected != 0 || closed || waiting + messages.size() > kHardLimit) return false;
  if (!enqueue(messages)) return false;
  if (waiting < kHighWater) overflowing = false;
  return true;
}

void Mailbox::accept(RovikMessage* msg) {
  if (isReply(*msg)) {
    reply = msg;
    expected = 0;
    return;
  }
  const std::size_t waiting = depthLocked();
  if (!closed && waiting < kHardLimit) {
    if (enqueue({&msg, 1})) {
      if (waiting < kHighWater) overflowing = false;
      return;
    }
    if (!std::exchange(overflowing, true)) {
      Drovane::global.log(LOG_LEVEL_ERROR, kFrameworkId, kFrameworkName,
                          "there is no memory for messages to rovik %d %s: they are dropped\n", id,
                          name.c_str());
    }
  }
  dropped_count.fetch_add(1, std::memory_order_relaxed);
  if (!closed && !std::exchange(overflowing, true)) {
    Drovane::global.log(LOG_LEVEL_ERROR, kFrameworkId, kFrameworkName,
                        "%zu messages wait for rovik %d %s: further ones are dropped\n", kHardLimit,
                        id, name.c_str());
  }
  RecordPool::release(msg);
}

void Mailbox::put(std::span<RovikMessage* const> messages) {
  {
    MutexLock guard(lock);
    if (!acceptAll(messages))
      for (RovikMessage* msg : messages) accept(msg);
    queued.store(queue.size(), std::memory_order_relaxed);
  }
  received_count.fetch_add(messages.size(), std::memory_order_relaxed);
  waker->wake();
}

std::size_t Mailbox::depth() const {
  return queued.load(std::memory_order_relaxed) + in_hand.load(std::memory_order_relaxed);
}

std::size_t Mailbox::depthLocked() const {
  return queue.size() + in_hand.load(std::memory_order_seq_cst);
}

// False when there is no memory for it: the feeder goes on then, and the hard limit guards.
bool Mailbox::lineUp(const std::shared_ptr<Waker>& feeder) {
  try {
    feeders.push_back(feeder);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

bool Mailbox::crowded(const std::shared_ptr<Waker>& feeder) {
  if (depth() <= kLowWater && !contended()) return false;
  MutexLock guard(lock);
  if (closed) return false;
  if (std::find(feeders.begin(), feeders.end(), feeder) == feeders.end()) {
    if (depthLocked() <= kLowWater || !lineUp(feeder)) return false;
  }
  feeders_wait.store(true, std::memory_order_seq_cst);
  // Only now: a receiver that empties the mailbox after this look sees feeders_wait.
  return depthLocked() > 0;
}

void Mailbox::close() {
  std::vector<RovikMessage*> dead;
  RovikMessage* unfetched = nullptr;
  std::vector<std::shared_ptr<Waker>> waiting;
  {
    MutexLock guard(lock);
    closed = true;
    dead.swap(queue);
    waiting.swap(feeders);
    feeders_wait.store(false, std::memory_order_seq_cst);
    unfetched = std::exchange(reply, nullptr);
    expected = 0;
    queued.store(0, std::memory_order_relaxed);
  }
  for (RovikMessage* msg : dead) RecordPool::release(msg);
  if (unfetched != nullptr) RecordPool::release(unfetched);
  for (const auto& feeder : waiting) feeder->wake();
  waker->wake();
}

bool Mailbox::isClosed() const {
  MutexLock guard(lock);
  return closed;
}

bool Mailbox::empty() const {
  MutexLock guard(lock);
  return queue.empty();
}

void Mailbox::take(std::vector<RovikMessage*>& batch) {
  MutexLock guard(lock);
  batch.swap(queue);
  in_hand.store(batch.size(), std::memory_order_relaxed);
  queued.store(0, std::memory_order_relaxed);
}

void Mailbox::left(std::size_t count) {
  in_hand.store(count, std::memory_order_seq_cst);
  if (count > kLowWater || !contended()) return;
  // One after the other; all of them when there is nothing left to do.
  do {
    if (const auto feeder = firstInLine()) feeder->wake();
  } while (depth() == 0 && contended());
}

// Null when nobody waits, or the mailbox has not drained.
std::shared_ptr<Waker> Mailbox::firstInLine() {
  MutexLock guard(lock);
  if (feeders.empty() || depthLocked() > kLowWater) return nullptr;
  auto first = std::move(feeders.front());
  feeders.erase(feeders.begin());
  feeders_wait.store(!feeders.empty(), std::memory_order_seq_cst);
  return first;
}

void Mailbox::beginWait(std::uint32_t seqnr) {
  MutexLock guard(lock);
  expected = closed ? 0 : seqnr;
}

bool Mailbox::replied() const {
  MutexLock guard(lock);
  return expected == 0;
}

RovikMessage* Mailbox::endWait() {
  MutexLock guard(lock);
  expected = 0;
  return std::exchange(reply, nullptr);
}

}  // namespace drovane
