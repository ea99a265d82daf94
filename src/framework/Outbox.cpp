#include "Outbox.h"

#include <new>
#include <span>
#include <utility>

#include "Clock.h"
#include "Drovane.h"
#include "Log.h"
#include "RecordPool.h"
#include "TimeValue.h"

namespace drovane {
namespace {

bool isBroadcast(const RovikMessage& msg) { return msg.dst == NO_DESTINATION && msg.dst_s.empty(); }

Mailbox* find(const AddressTable& table, const RovikMessage& msg) {
  return msg.dst != NO_DESTINATION ? table.byId(msg.dst) : table.byName(msg.dst_s);
}

void reportUndeliverable(RovikMessage& msg) {
  Router::global().countUndeliverable();
  if (!Drovane::global.logs(LOG_LEVEL_DEBUG)) return;
  Drovane::global.log(LOG_LEVEL_DEBUG, kFrameworkId, kFrameworkName, "nobody to receive %s\n",
                      msg.toString().c_str());
}

}  // namespace

Outbox::Outbox(std::shared_ptr<Mailbox> its_own)
    : own(std::move(its_own)), router(Router::global()) {}

Outbox::~Outbox() { flush(); }

const AddressTable& Outbox::currentTable() {
  const std::uint64_t version = router.version();
  if (table == nullptr || table_version != version) {
    flush();  // what waits points into the old table
    table = router.table();
    table_version = version;
  }
  return *table;
}

// False when there is no memory for the name: the message is released.
bool Outbox::stamp(RovikMessage& msg, std::uint32_t seqnr) const {
  if (msg.seqnr == 0) msg.seqnr = seqnr;
  if (msg.src == 0) msg.src = static_cast<std::uint32_t>(own->id);
  if (!msg.src_s.empty()) return true;
  try {
    msg.src_s = own->name;
    return true;
  } catch (const std::bad_alloc&) {
    RecordPool::release(&msg);
    return false;
  }
}

void Outbox::stampTime(RovikMessage& msg, const timeval& now) {
  if (msg.type != MM_DATA) return;
  auto& data = static_cast<MMData&>(msg);
  if (data.tv_sec != 0 || data.tv_usec != 0) return;
  data.tv_sec = static_cast<std::uint32_t>(now.tv_sec);
  data.tv_usec = static_cast<std::uint32_t>(now.tv_usec);
}

// Reading the time costs more than anything else on the way of a short line. What one slot sends
// within a tick of the kernel's clock has the time of the first of these messages.
const timeval& Outbox::timeOfSlot() {
  const std::int64_t tick = Clock::coarse();
  if (tick != slot_tick) {
    TimeValue::getCurrentSystemTime(slot_time);
    slot_tick = tick;
  }
  return slot_time;
}

// Numbers are fetched in blocks: the counter is shared by all senders.
std::uint32_t Outbox::nextSeqnr() {
  if (seqnr_left == 0) {
    next_seqnr = router.reserveSeqnrs(kSeqnrBlock);
    seqnr_left = kSeqnrBlock;
  }
  --seqnr_left;
  const std::uint32_t number = next_seqnr++;
  return number != 0 ? number : nextSeqnr();
}

int Outbox::addressed(Mailbox* to, RovikMessage* copy, Batch& out) {
  if (to == nullptr) {
    reportUndeliverable(*copy);
    RecordPool::release(copy);
    return -1;
  }
  out.makeRoom();
  out.add(copy, to);
  return 1;
}

// One record for all: the receivers share it.
int Outbox::broadcast(const AddressTable& roviks, RovikMessage* copy, Batch& out) {
  const std::uint32_t receivers = roviks.others(*own);
  if (receivers == 0) {
    RecordPool::release(copy);
    return 0;
  }
  out.makeRoom();
  if (receivers > 1) RecordPool::share(copy, receivers - 1);
  out.add(copy, nullptr);
  return static_cast<int>(receivers);
}

// Takes over the stamped copy.
int Outbox::route(const AddressTable& addresses, RovikMessage* copy, Batch& out) {
  if (router.tapped()) router.copyToTap(copy);
  if (isBroadcast(*copy)) return broadcast(addresses, copy, out);
  return addressed(find(addresses, *copy), copy, out);
}

// For want of memory the message is lost, and nothing else.
int Outbox::routeOrRelease(const AddressTable& addresses, RovikMessage* copy, Batch& out) {
  try {
    return route(addresses, copy, out);
  } catch (const std::bad_alloc&) {
    RecordPool::release(copy);
    return -1;
  }
}

int Outbox::send(const RovikMessage& msg) {
  const AddressTable& addresses = currentTable();
  RovikMessage* copy = RecordPool::copy(msg);
  if (copy == nullptr || !stamp(*copy, copy->seqnr == 0 ? nextSeqnr() : copy->seqnr)) return -1;
  if (copy->type == MM_DATA) stampTime(*copy, timeOfSlot());
  sent_inside.store(sent_inside.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  const int receivers = routeOrRelease(addresses, copy, pending);
  if (pending.messages.size() >= kBatch) flush();
  return receivers;
}

std::uint32_t Outbox::sendRequest(const RovikMessage& msg) {
  flush();
  const std::uint32_t seqnr = msg.seqnr != 0 ? msg.seqnr : nextSeqnr();
  RovikMessage* request = RecordPool::copy(msg);
  if (request == nullptr) return 0;
  request->seqnr = seqnr;
  own->beginWait(seqnr);
  const int receivers = send(*request);
  RecordPool::release(request);
  flush();
  if (receivers > 0) return seqnr;
  RovikMessage::destroy(own->endWait());
  return 0;
}

int Outbox::sendNow(const RovikMessage& msg) {
  RovikMessage* copy = RecordPool::copy(msg);
  if (copy == nullptr || !stamp(*copy, copy->seqnr == 0 ? router.nextSeqnr() : copy->seqnr))
    return -1;
  timeval now{};
  TimeValue::getCurrentSystemTime(now);
  stampTime(*copy, now);
  sent_outside.fetch_add(1, std::memory_order_relaxed);
  Batch out;
  const auto addresses = router.table();
  const int receivers = routeOrRelease(*addresses, copy, out);
  handOver(*addresses, out, [](Mailbox&) {});
  return receivers;
}

void Outbox::flush() {
  slot_tick = 0;
  if (pending.empty()) return;
  handOver(*table, pending, [this](Mailbox& mailbox) { noteCrowd(mailbox); });
  pending.clear();
}

// Neighbours with the same receivers go in one step: a steady stream takes one lock and one waking
// a batch.
template <typename AfterPut>
void Outbox::handOver(const AddressTable& addresses, const Batch& out, AfterPut afterPut) const {
  const auto put = [&](Mailbox& mailbox, std::span<RovikMessage* const> run) {
    mailbox.put(run);
    afterPut(mailbox);
  };
  for (std::size_t begin = 0, end = 0; begin < out.messages.size(); begin = end) {
    Mailbox* const to = out.receivers[begin];
    while (end < out.receivers.size() && out.receivers[end] == to) ++end;
    const std::span run(&out.messages[begin], end - begin);
    if (to != nullptr) {
      put(*to, run);
      continue;
    }
    for (const auto& mailbox : addresses.roviks())
      if (mailbox != own) put(*mailbox, run);
  }
}

void Outbox::noteCrowd(Mailbox& mailbox) {
  const std::size_t limit = mailbox.contended() ? Mailbox::kLowWater : Mailbox::kHighWater;
  if (mailbox.depth() <= limit) return;
  for (const auto& known : crowded)
    if (known.get() == &mailbox) return;
  try {
    crowded.push_back(mailbox.shared_from_this());
  } catch (const std::bad_alloc&) {
    // Noted with a later message; until then the hard limit guards.
  }
}

bool Outbox::heldBack() {
  std::erase_if(crowded, [this](const auto& mailbox) { return !mailbox->crowded(own->waker); });
  return !crowded.empty();
}

}  // namespace drovane
