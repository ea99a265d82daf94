#include "Peer.h"

namespace soak {
namespace {

// A serial line drops the rest of what it has no room for, so that requests to one that stalls run
// into each other.
Ear::Rule ruleFor(const Link& link) {
  if (link.kind.character == Character::Visited) return Ear::Rule::Every;
  if (link.kind.character == Character::Stalls && link.kind.transport == Transport::Serial)
    return Ear::Rule::None;
  return link.mayPart() ? Ear::Rule::InConnections : Ear::Rule::Every;
}

}  // namespace

Peer::Peer(Link its_link, std::unique_ptr<Place> its_place)
    : its(std::move(its_link)),
      where(std::move(its_place)),
      ear(ruleFor(its)),
      random(static_cast<unsigned>(its.id)) {}

void Peer::act(Clock::time_point now) {
  do {
    if (line == nullptr && waits(now)) takeNext(now);
    if (line == nullptr) return;
    liveOn(now);
  } while (line == nullptr && its.kind.character == Character::Visited);
}

void Peer::takeNext(Clock::time_point now) {
  line = where->welcome();
  if (line == nullptr) return;
  ++met;
  voice.begin();
  ear.begin();
  next_line = now + spell(0, 1000);
  meet(now);
}

void Peer::liveOn(Clock::time_point now) {
  if (listens(now) && !listen()) return lost(now);
  if (!active) return;
  calm ? takeLeave(now) : talk(now);
  if (line != nullptr) passOn();
}

bool Peer::listen() {
  std::string bytes;
  const bool there = line->receive(bytes);
  ear.hear(bytes);
  return there;
}

bool Peer::passOn() {
  if (voice.passOn(*line)) return true;
  ++slowed_down;
  return false;
}

void Peer::takeLeave(Clock::time_point) {
  if (!voice.saidLast()) voice.sayLast();
}

void Peer::lost(Clock::time_point) {
  line.reset();
  if (!its.mayPart()) found.push_back("its rovik has ended the link");
}

void Peer::sayAtPace(Clock::time_point now, std::chrono::milliseconds interval) {
  if (now < next_line || !voice.idle()) return;
  next_line = now + interval;
  voice.say();
}

}  // namespace soak
