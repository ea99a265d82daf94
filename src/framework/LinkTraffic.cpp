#include "LinkTraffic.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Clock.h"
#include "Log.h"
#include "RovikUtil.h"

namespace drovane {

// All the memory that telling needs is taken here.
LinkTraffic::LinkTraffic() {
  constexpr std::size_t kLongestEscape = 4;  // \xNN
  sent_text.reserve(kLongestEscape * kShownUnit);
  in.last.reserve(kShownUnit);
  out.last.reserve(kShownUnit);
}

void LinkTraffic::received(std::string_view bytes) {
  add(in.bytes, bytes.size());
  show(LinkTap::Event::Received, bytes);
}

void LinkTraffic::sent(std::string_view bytes) {
  add(out.bytes, bytes.size());
  add(out.units, 1);
  RovikUtil::escape(sent_text, bytes.data(), std::min(bytes.size(), kShownUnit));
  keep(out, sent_text);
  show(LinkTap::Event::Sent, bytes);
}

void LinkTraffic::unitsReceived(std::uint64_t count, std::string_view last) {
  add(in.units, count);
  keep(in, last);
}

void LinkTraffic::linkChanged(bool open) {
  link_changed.store(Clock::now(), std::memory_order_relaxed);
  linkIs(open);
}

void LinkTraffic::linkIs(bool open) {
  show(open ? LinkTap::Event::Opened : LinkTap::Event::Closed, {});
}

void LinkTraffic::keep(Counter& counter, std::string_view unit) {
  MutexLock guard(lock);
  counter.last.assign(unit.substr(0, kShownUnit));
  counter.last_time = Clock::coarse();
}

// For want of memory the tap misses an event; the link goes on.
void LinkTraffic::show(LinkTap::Event event, std::string_view bytes) {
  if (!tapped.load(std::memory_order_relaxed)) return;
  MutexLock guard(lock);
  if (tap == nullptr) return;
  try {
    tap->see(event, bytes);
  } catch (const std::bad_alloc&) {
    Log::global().countLost();
  }
}

void LinkTraffic::setTap(std::shared_ptr<LinkTap> its_tap) {
  MutexLock guard(lock);
  tapped.store(its_tap != nullptr, std::memory_order_relaxed);
  tap.swap(its_tap);
}

LinkTraffic::Direction LinkTraffic::direction(const Counter& counter) const {
  Direction now;
  now.bytes = counter.bytes.load(std::memory_order_relaxed);
  now.units = counter.units.load(std::memory_order_relaxed);
  now.last = counter.last;
  now.last_time = counter.last_time;
  return now;
}

LinkTraffic::Figures LinkTraffic::figures() const {
  Figures now;
  {
    MutexLock guard(lock);
    now.in = direction(in);
    now.out = direction(out);
  }
  now.dropped = dropped.load(std::memory_order_relaxed);
  now.link_changed = link_changed.load(std::memory_order_relaxed);
  return now;
}

}  // namespace drovane
