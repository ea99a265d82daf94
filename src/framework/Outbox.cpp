#include "Outbox.h"

#include <utility>

#include "Drovane.h"
#include "Log.h"
#include "RecordPool.h"
#include "TimeValue.h"

namespace drovane {
namespace {

void stampTime(MMData& data) {
  if (data.tv_sec != 0 || data.tv_usec != 0) return;
  timeval now{};
  TimeValue::getCurrentSystemTime(now);
  data.tv_sec = static_cast<std::uint32_t>(now.tv_sec);
  data.tv_usec = static_cast<std::uint32_t>(now.tv_usec);
}

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

void Outbox::stamp(RovikMessage& msg) const {
  if (msg.seqnr == 0) msg.seqnr = router.nextSeqnr();
  if (msg.src == 0) msg.src = static_cast<std::uint32_t>(own->id);
  if (msg.src_s.empty()) msg.src_s = own->name;
  if (msg.type == MM_DATA) stampTime(static_cast<MMData&>(msg));
}

int Outbox::addressed(Mailbox* to, RovikMessage* copy, std::vector<Pending>& out) {
  if (to == nullptr) {
    reportUndeliverable(*copy);
    RecordPool::release(copy);
    return -1;
  }
  out.push_back({to, copy});
  return 1;
}

// One record for all: the receivers share it.
int Outbox::broadcast(const AddressTable& roviks, RovikMessage* copy, std::vector<Pending>& out) {
  std::uint32_t receivers = 0;
  for (const auto& mailbox : roviks.roviks()) {
    if (mailbox == own) continue;
    RecordPool::share(copy, 1);
    out.push_back({mailbox.get(), copy});
    ++receivers;
  }
  RecordPool::release(copy);
  return static_cast<int>(receivers);
}

int Outbox::route(const AddressTable& addresses, const RovikMessage& msg,
                  std::vector<Pending>& out) {
  RovikMessage* copy = RecordPool::copy(msg);
  if (copy == nullptr) return -1;
  stamp(*copy);
  sent_count.fetch_add(1, std::memory_order_relaxed);
  if (router.tapped()) router.copyToTap(copy);
  if (isBroadcast(*copy)) return broadcast(addresses, copy, out);
  return addressed(find(addresses, *copy), copy, out);
}

int Outbox::send(const RovikMessage& msg) {
  const int receivers = route(currentTable(), msg, pending);
  if (pending.size() >= kBatch) flush();
  return receivers;
}

std::uint32_t Outbox::sendRequest(const RovikMessage& msg) {
  flush();
  const AddressTable& addresses = currentTable();
  RovikMessage* request = RecordPool::copy(msg);
  if (request == nullptr) return 0;
  if (request->seqnr == 0) request->seqnr = router.nextSeqnr();
  const std::uint32_t seqnr = request->seqnr;
  own->beginWait(seqnr);
  const int receivers = route(addresses, *request, pending);
  RecordPool::release(request);
  flush();
  if (receivers > 0) return seqnr;
  RovikMessage::destroy(own->endWait());
  return 0;
}

int Outbox::sendNow(const RovikMessage& msg) {
  const auto addresses = router.table();
  std::vector<Pending> out;
  std::vector<RovikMessage*> run;
  const int receivers = route(*addresses, msg, out);
  handOver(out, run);
  return receivers;
}

void Outbox::flush() {
  if (pending.empty()) return;
  handOver(pending, batch);
  for (const Pending& entry : pending) noteCrowd(*entry.to);
  pending.clear();
}

// Neighbours with the same receiver go in one step; a steady stream to one rovik takes one lock a
// batch. `run` only lends its memory.
void Outbox::handOver(const std::vector<Pending>& out, std::vector<RovikMessage*>& run) {
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
  crowded.push_back(mailbox.shared_from_this());
}

bool Outbox::heldBack() {
  std::erase_if(crowded, [this](const auto& mailbox) { return !mailbox->crowded(own->waker); });
  return !crowded.empty();
}

}  // namespace drovane
