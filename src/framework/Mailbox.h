// Where the messages for one receiver wait, and where they count.
//
// Any thread puts messages in; one thread, the receiver, takes them out, all that are there in one
// go. A sleeping receiver is woken once, not once per message.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "Mutex.h"
#include "RovikMessage.h"
#include "Waker.h"

namespace drovane {

class Mailbox : public std::enable_shared_from_this<Mailbox> {
 public:
  // Above the high-water mark whoever feeds the mailbox from a link stops reading that link until
  // the mailbox has drained to the low-water mark, so that the peer is slowed down and nothing is
  // lost. The hard limit is for scripts that flood each other.
  static constexpr std::size_t kHighWater = 1024;
  static constexpr std::size_t kLowWater = 256;
  static constexpr std::size_t kHardLimit = 65536;

  // A receiver that has no loop of its own shares the waker of the thread that serves it.
  Mailbox(int its_id, std::string its_name, std::shared_ptr<Waker> its_waker);
  ~Mailbox();
  Mailbox(const Mailbox&) = delete;
  Mailbox& operator=(const Mailbox&) = delete;

  const int id;
  const std::string name;
  const std::shared_ptr<Waker> waker;

  // --- Any thread ---

  // Takes over one hold on each message. What finds no room, or a closed mailbox, is released and
  // counted as dropped.
  void put(std::span<RovikMessage* const> messages);

  // Messages that were put in and not yet dealt with.
  std::size_t depth() const;

  // For a feeder that has seen depth pass the high-water mark: true while the mailbox has not yet
  // drained to the low-water mark, and its turn has not come. `feeder` is woken when that happens.
  bool crowded(const std::shared_ptr<Waker>& feeder);

  // Feeders wait in line. Whoever has its turn goes to the end of the line as soon as the mailbox
  // has passed the low-water mark again, so that all of them get the same.
  bool contended() const { return feeders_wait.load(std::memory_order_seq_cst); }

  // No more messages: what waits is released, a waiting request ends without an answer.
  void close();
  bool isClosed() const;

  std::uint64_t received() const { return received_count.load(std::memory_order_relaxed); }
  std::uint64_t dropped() const { return dropped_count.load(std::memory_order_relaxed); }

  // --- The receiver ---

  bool empty() const;

  // Moves everything that waits into `batch`, which must be empty; the receiver releases each
  // message after dealing with it and then says how many of the batch are left.
  void take(std::vector<RovikMessage*>& batch);
  void left(std::size_t count);

  // From now on the first answer to request `seqnr` is not queued but kept for the waiting
  // receiver.
  void beginWait(std::uint32_t seqnr);
  // True when there is nothing more to wait for: the answer is there, or the mailbox was closed.
  bool replied() const;
  // Ends the wait. The answer, now the caller's; null when none came.
  RovikMessage* endWait();

 private:
  bool isReply(const RovikMessage& msg) const DROVANE_REQUIRES(lock);
  void accept(RovikMessage* msg) DROVANE_REQUIRES(lock);
  bool acceptAll(std::span<RovikMessage* const> messages) DROVANE_REQUIRES(lock);
  bool enqueue(std::span<RovikMessage* const> messages) DROVANE_REQUIRES(lock);
  std::size_t depthLocked() const DROVANE_REQUIRES(lock);
  bool lineUp(const std::shared_ptr<Waker>& feeder) DROVANE_REQUIRES(lock);
  std::shared_ptr<Waker> firstInLine();

  mutable Mutex lock;
  std::vector<RovikMessage*> queue DROVANE_GUARDED_BY(lock);
  std::vector<std::shared_ptr<Waker>> feeders DROVANE_GUARDED_BY(lock);
  std::uint32_t expected DROVANE_GUARDED_BY(lock) = 0;
  RovikMessage* reply DROVANE_GUARDED_BY(lock) = nullptr;
  bool closed DROVANE_GUARDED_BY(lock) = false;
  bool overflowing DROVANE_GUARDED_BY(lock) = false;

  std::atomic<std::size_t> queued{0};     // of `queue`, readable without the lock
  std::atomic<std::size_t> in_hand{0};    // of the receiver's batch; written by the receiver only
  std::atomic<bool> feeders_wait{false};  // `feeders` is not empty
  std::atomic<std::uint64_t> received_count{0};
  std::atomic<std::uint64_t> dropped_count{0};
};

}  // namespace drovane
