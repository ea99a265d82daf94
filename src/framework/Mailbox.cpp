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
  const bool addressed = msg.dst != NO_DESTINATION || !msg.dst_s.empty();
  return expected != 0 && msg.seqnr == expected && addressed &&
         (msg.type == MM_DATA || msg.type == MM_CMD_RESPONSE);
}

bool Mailbox::enqueue(RovikMessage* msg) {
  try {
    queue.push_back(msg);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void Mailbox::accept(RovikMessage* msg) {
  if (isReply(*msg)) {
    reply = msg;
    expected = 0;
    return;
  }
  const std::size_t waiting = depthLocked();
  if (!closed && waiting < kHardLimit) {
    if (enqueue(msg)) {
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

bool Mailbox::crowded(const std::shared_ptr<Waker>& feeder) {
  if (depth() <= kLowWater) return false;
  MutexLock guard(lock);
  if (closed) return false;
  if (std::find(feeders.begin(), feeders.end(), feeder) == feeders.end()) feeders.push_back(feeder);
  feeders_wait.store(true, std::memory_order_seq_cst);
  // Only now: a receiver that lowers the count after this look sees feeders_wait.
  return depthLocked() > kLowWater;
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
    unfetched = std::exchange(reply, nullptr);
    expected = 0;
    queued.store(0, std::memory_order_relaxed);
  }
  for (RovikMessage* msg : dead) RecordPool::release(msg);
  if (unfetched != nullptr) RecordPool::release(unfetched);
  for (const auto& feeder : waiting) feeder->wake();
  waker->wake();
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
  if (count > kLowWater || !feeders_wait.load(std::memory_order_seq_cst)) return;
  std::vector<std::shared_ptr<Waker>> waiting;
  {
    MutexLock guard(lock);
    if (depthLocked() > kLowWater) return;
    waiting.swap(feeders);
    feeders_wait.store(false, std::memory_order_relaxed);
  }
  for (const auto& feeder : waiting) feeder->wake();
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
