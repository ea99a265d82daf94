// The sending side of one address: stamps what is sent, finds the receivers, hands messages over in
// batches.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Mailbox.h"
#include "Router.h"
#include "RovikMessage.h"
#include "TimeValue.h"

namespace drovane {

class Outbox {
 public:
  // `own` is the sender's own mailbox: its id and name are stamped on messages, and broadcasts
  // leave it out.
  explicit Outbox(std::shared_ptr<Mailbox> own);
  ~Outbox();
  Outbox(const Outbox&) = delete;
  Outbox& operator=(const Outbox&) = delete;

  // --- The thread that is inside the rovik ---

  // Routes a copy of `msg`; it waits here until flush, or until enough messages wait. Returns how
  // many receivers it has, or -1 when nobody has the address.
  int send(const RovikMessage& msg);

  // Hands a copy of `msg` over at once, after telling the own mailbox which reply to wait for.
  // Returns the sequence number that the reply will carry, 0 when nobody receives the request.
  std::uint32_t sendRequest(const RovikMessage& msg);

  // Hands over what waits.
  void flush();

  // True while a mailbox that this sender feeds has not drained; `waker` is woken when it has.
  bool heldBack();

  // --- Any thread ---

  // Routes a copy of `msg` and hands it over at once.
  int sendNow(const RovikMessage& msg);

  std::uint64_t sent() const {
    return sent_inside.load(std::memory_order_relaxed) +
           sent_outside.load(std::memory_order_relaxed);
  }

 private:
  // Messages on their way, in the order of sending.
  struct Batch {
    std::vector<RovikMessage*> messages;  // with one hold for each receiver
    std::vector<Mailbox*> receivers;      // of each message; null: every rovik but the sender
    bool empty() const { return messages.empty(); }
    // Before anything is noted, since a message is on its way to all of its receivers or to none.
    void makeRoom() {
      if (messages.size() < messages.capacity() && receivers.size() < receivers.capacity()) return;
      const std::size_t more = std::max<std::size_t>(2 * messages.size(), 1);
      messages.reserve(more);
      receivers.reserve(more);
    }
    void add(RovikMessage* msg, Mailbox* to) {
      messages.push_back(msg);
      receivers.push_back(to);
    }
    void clear() {
      messages.clear();
      receivers.clear();
    }
  };
  static constexpr std::uint32_t kSeqnrBlock = 256;
  static constexpr std::size_t kBatch = 512;  // all lines of one read, as a rule

  bool stamp(RovikMessage& msg, std::uint32_t seqnr) const;
  static void stampTime(RovikMessage& msg, const timeval& now);
  const timeval& timeOfSlot();
  std::uint32_t nextSeqnr();
  int route(const AddressTable& addresses, RovikMessage* copy, Batch& out);
  int addressed(Mailbox* to, RovikMessage* copy, Batch& out);
  int broadcast(const AddressTable& roviks, RovikMessage* copy, Batch& out);
  int routeOrRelease(const AddressTable& addresses, RovikMessage* copy, Batch& out);
  template <typename AfterPut>
  void handOver(const AddressTable& addresses, const Batch& out, AfterPut afterPut) const;
  void noteCrowd(Mailbox& mailbox);
  const AddressTable& currentTable();

  const std::shared_ptr<Mailbox> own;
  Router& router;
  std::shared_ptr<const AddressTable> table;
  std::uint64_t table_version = 0;
  Batch pending;  // addressed by `table`
  std::vector<std::shared_ptr<Mailbox>> crowded;
  std::uint32_t next_seqnr = 0;
  std::uint32_t seqnr_left = 0;  // of the reserved block
  timeval slot_time{};
  std::int64_t slot_tick = 0;  // when slot_time was read; 0: not since the last flush
  std::atomic<std::uint64_t> sent_inside{0};  // written by the thread that is inside
  std::atomic<std::uint64_t> sent_outside{0};
};

}  // namespace drovane
