#include "ControlWatch.h"

#include <new>
#include <utility>

#include "LocalTime.h"
#include "MessageJson.h"
#include "RecordPool.h"
#include "Router.h"

namespace drovane {
namespace {

// What the log calls the mailbox when it overflows; no rovik can have this id.
constexpr int kTapId = kCommandLineId - 1;
constexpr const char* kTapName = "watch";
constexpr std::size_t kAtOnce = 512;

std::string messageLine(RovikMessage& msg) {
  const Json json(msg.toJSON());
  cJSON_AddStringToObject(json.get(), "time", localTimeNow().c_str());
  return jsonLine(json.get());
}

}  // namespace

ControlWatch::ControlWatch(std::shared_ptr<Waker> its_waker) : waker(std::move(its_waker)) {}

ControlWatch::~ControlWatch() { close(); }

void ControlWatch::add(std::uint64_t client, WatchFilter filter) {
  watching.insert_or_assign(client, std::move(filter));
  if (!tap) open();
}

void ControlWatch::remove(std::uint64_t client) {
  watching.erase(client);
  if (watching.empty()) close();
}

void ControlWatch::open() {
  tap = std::make_shared<Mailbox>(kTapId, kTapName, waker);
  reported_lost = 0;
  lost_here = 0;
  Router::global().setTap(tap);
}

void ControlWatch::close() {
  if (!tap) return;
  Router::global().setTap(nullptr);
  for (; batch_done < batch.size(); ++batch_done) RecordPool::release(batch[batch_done]);
  batch.clear();
  batch_done = 0;
  tap->close();
  tap.reset();
}

bool ControlWatch::waiting() const { return tap && (batch_done < batch.size() || !tap->empty()); }

// False when there was no memory for it.
bool ControlWatch::handOutOne(RovikMessage& msg, const To& to) const {
  try {
    std::string line;
    for (const auto& [client, filter] : watching) {
      if (!filter.passes(msg)) continue;
      if (line.empty()) line = messageLine(msg);
      to(client, line);
    }
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void ControlWatch::handOut(const To& to, const std::function<void(std::uint64_t)>& messages_lost) {
  if (!waiting()) return;
  if (batch_done == batch.size()) {
    batch.clear();
    batch_done = 0;
    tap->take(batch);
  }
  for (std::size_t count = 0; count < kAtOnce && batch_done < batch.size(); ++count) {
    RovikMessage* const msg = batch[batch_done++];
    if (!handOutOne(*msg, to)) ++lost_here;
    RecordPool::release(msg);
  }
  tap->left(batch.size() - batch_done);
  const std::uint64_t lost = tap->dropped() + lost_here;
  if (lost != reported_lost) messages_lost(lost - std::exchange(reported_lost, lost));
}

}  // namespace drovane
