#include "Outbox.h"

#include <algorithm>
#include <new>
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

// Before anything is noted: a message is on its way to all of its receivers or to none.
void Outbox::makeRoom(std::vector<Pending>& out, std::size_t more) {
  if (out.capacity() - out.size() < more) out.reserve(std::max(2 * out.size(), out.size() + more));
}

int Outbox::addressed(Mailbox* to, RovikMessage* copy, std::vector<Pending>& out) {
  if (to == nullptr) {
    reportUndeliverable(*copy);
    RecordPool::release(copy);
    return -1;
  }
  makeRoom(out, 1);
  out.push_back({to, copy});
  return 1;
}

// One record for all: the receivers share it.
int Outbox::broadcast(const AddressTable& roviks, RovikMessage* copy, std::vector<Pending>& out) {
  const std::size_t before = out.size();
  makeRoom(out, roviks.roviks().size());
  for (const auto& mailbox : roviks.roviks())
    if (mailbox != own) out.push_back({mailbox.get(), copy});
  const auto receivers = static_cast<std::uint32_t>(out.size() - before);
  if (receivers == 0) RecordPool::release(copy);
  if (receivers > 1) RecordPool::share(copy, receivers - 1);
  return static_cast<int>(receivers);
}

// Takes over the stamped copy.
int Outbox::route(const AddressTable& addresses, RovikMessage* copy, std::vector<Pending>& out) {
  if (router.tapped()) router.copyToTap(copy);
  if (isBroadcast(*copy)) return broadcast(addresses, copy, out);
  return addressed(find(addresses, *copy), copy, out);
}

// For want of memory the message is lost, and nothing else.
int Outbox::routeOrRelease(const AddressTable& addresses, RovikMessage* copy,
                           std::vector<Pending>& out) {
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
  if (pending.size() >= kBatch) flush();
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
  std::vector<Pending> out;
  std::vector<RovikMessage*> run;
  const auto addresses = router.table();
  const int receivers = routeOrRelease(*addresses, copy, out);
  handOver(out, run);
  return receivers;
}

void Outbox::flush() {
  slot_tick = 0;
  if (pending.empty()) return;
  handOver(pending, batch);
  for (const Pending& entry : pending) noteCrowd(*entry.to);
  pending.clear();
}

// Neighbours with the same receiver go in one step; a steady stream to one rovik takes one lock a
// batch. `run` only lends its memory.
void Outbox::handOver(const std::vector<Pending>& out, std::vector<RovikMessage*>& run) {
  try {
    run.reserve(out.size());
  } catch (const std::bad_alloc&) {
    for (const Pending& entry : out) entry.to->put({&entry.msg, 1});
    return;
  }
  for (std::size_t at = 0; at < out.size();) {
    Mailbox* const to = out[at].to;
    run.clear();
    for (; at < out.size() && out[at].to == to; ++at) run.push_back(out[at].msg);
    to->put(run);
  }
}

void Outbox::noteCrowd(Mailbox& mailbox) {
  if (mailbox.depth() <= Mailbox::kHighWater) return;
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
