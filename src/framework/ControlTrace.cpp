#include "ControlTrace.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <utility>

#include "Clock.h"
#include "LocalTime.h"
#include "MessageJson.h"

namespace drovane {
namespace {

// In one turn and of one link; the first that is reached ends the turn.
constexpr std::size_t kEventsAtOnce = 512;
constexpr std::size_t kBytesAtOnce = 128 * 1024;

const char* nameOf(LinkTap::Event event) {
  switch (event) {
    case LinkTap::Event::Received:
      return "received";
    case LinkTap::Event::Sent:
      return "sent";
    case LinkTap::Event::Opened:
      return "opened";
    case LinkTap::Event::Closed:
      break;
  }
  return "closed";
}

Json newEvent(const char* name, const std::string& rovik) {
  Json json(cJSON_CreateObject());
  cJSON_AddStringToObject(json.get(), "event", name);
  cJSON_AddStringToObject(json.get(), "rovik", rovik.c_str());
  return json;
}

// Seconds with six digits behind the point.
double secondsOf(std::int64_t nanoseconds) {
  return std::round(static_cast<double>(nanoseconds) / 1000) / 1'000'000;
}

std::string eventLine(const TraceQueue::Event& event, std::string_view bytes,
                      const std::string& rovik, std::int64_t since) {
  const Json json = newEvent(nameOf(event.what), rovik);
  if (!bytes.empty()) addText(json.get(), "bytes", bytes);
  cJSON_AddNumberToObject(json.get(), "seconds", secondsOf(event.tick - since));
  cJSON_AddStringToObject(json.get(), "time", localTime(event.seconds, event.milliseconds).c_str());
  return jsonLine(json.get());
}

}  // namespace

ControlTrace::ControlTrace(std::shared_ptr<Waker> its_waker, SetTap its_set_tap)
    : waker(std::move(its_waker)), setTap(std::move(its_set_tap)) {}

ControlTrace::~ControlTrace() {
  for (const Link& link : links) release(link);
}

// A link that has ended belongs to a rovik that is gone; there may be a new one of its name.
ControlTrace::Link* ControlTrace::find(const std::string& rovik) {
  const auto found = std::find_if(links.begin(), links.end(), [&](const Link& link) {
    return link.rovik == rovik && !link.queue->ended();
  });
  return found != links.end() ? &*found : nullptr;
}

// The tap comes last: it stays only if nothing else has failed.
void ControlTrace::add(std::uint64_t client, const std::string& rovik, bool link_open) {
  const std::int64_t since = Clock::now();
  if (Link* const traced = find(rovik)) {
    traced->clients.emplace(client, since);
    return;
  }
  auto queue = std::make_shared<TraceQueue>(waker);
  auto tap = std::make_shared<TraceTap>(queue, link_open);
  links.push_back({rovik, std::move(queue), {{client, since}}, {}});
  setTap(rovik, std::move(tap));
}

// A tap that has ended is not this rovik's any more.
void ControlTrace::release(const Link& link) const {
  if (!link.queue->ended()) setTap(link.rovik, nullptr);
}

void ControlTrace::remove(std::uint64_t client) {
  for (auto at = links.begin(); at != links.end();) {
    at->clients.erase(client);
    if (!at->clients.empty()) {
      ++at;
      continue;
    }
    release(*at);
    at = links.erase(at);
  }
}

bool ControlTrace::contains(std::uint64_t client) const {
  return std::any_of(links.begin(), links.end(),
                     [&](const Link& link) { return link.clients.contains(client); });
}

bool ControlTrace::waiting() const {
  return std::any_of(links.begin(), links.end(),
                     [](const Link& link) { return !link.batchDone() || link.queue->waiting(); });
}

void ControlTrace::handOut(const Receiver& to) {
  for (auto at = links.begin(); at != links.end();) {
    const auto link = at++;
    handOutSome(*link, to);
    if (!link->batchDone() || !link->queue->drained()) continue;
    std::list<Link> over;
    over.splice(over.begin(), links, link);
    for (const auto& [client, since] : link->clients) to.end(client, link->rovik);
  }
}

std::string ControlTrace::endLine(const std::string& rovik) {
  return jsonLine(newEvent("ended", rovik).get());
}

void ControlTrace::handOutSome(Link& link, const Receiver& to) {
  if (link.batchDone()) {
    link.events_done = link.bytes_done = 0;
    link.queue->take(link.batch);
  }
  const std::size_t events_end =
      std::min(link.events_done + kEventsAtOnce, link.batch.events.size());
  const std::size_t bytes_end = link.bytes_done + kBytesAtOnce;
  while (link.events_done < events_end && link.bytes_done < bytes_end) {
    handOutOne(link, to);
    link.bytes_done += link.batch.events[link.events_done++].length;
  }
  if (!link.batchDone()) return;
  const std::uint64_t events = std::exchange(link.batch.dropped, 0);
  const std::uint64_t bytes = std::exchange(link.batch.dropped_bytes, 0);
  if (events == 0) return;
  for (const auto& [client, since] : link.clients) to.lost(client, events, bytes);
}

// Whoever has come later than the event is not told. What there is no memory for is lost.
void ControlTrace::handOutOne(const Link& link, const Receiver& to) {
  const TraceQueue::Event& event = link.batch.events[link.events_done];
  const std::string_view bytes =
      std::string_view(link.batch.bytes).substr(link.bytes_done, event.length);
  for (const auto& [client, since] : link.clients) {
    if (event.tick < since) continue;
    try {
      to.line(client, eventLine(event, bytes, link.rovik, since), bytes.size());
    } catch (const std::bad_alloc&) {
      to.lost(client, 1, bytes.size());
    }
  }
}

}  // namespace drovane
