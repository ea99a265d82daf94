// The other end of a link. It has one connection at a time; what it does there is its character.
#pragma once

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Place.h"
#include "Plan.h"
#include "Voice.h"

namespace soak {

class Peer {
 public:
  Peer(Link its_link, std::unique_ptr<Place> its_place);
  virtual ~Peer() = default;

  const Link& link() const { return its; }
  const Place& place() const { return *where; }

  // Does what is to be done at this moment, without waiting. One that is visited takes all
  // visitors: however seldom it has its turn, they do not pile up.
  void act(Clock::time_point now);
  // A peer does no more than to take connections and to listen before its time has begun, and
  // brings to an end what it has begun once it is to calm down.
  void begin() { active = true; }
  void calmDown() { calm = true; }
  // Whether that is done.
  virtual bool finished() const { return voice.ends() > 0 && voice.idle(); }

  bool connected() const { return line != nullptr; }
  // Must there be a link before the load begins, and all the time?
  bool stays() const { return !its.mayPart() && its.kind.transport != Transport::Udp; }
  std::int64_t connections() const { return met; }
  // How often the line had no room for what was to be said.
  std::int64_t slowed() const { return slowed_down; }
  const Voice& said() const { return voice; }
  const Ear& heard() const { return ear; }
  const std::vector<std::string>& faults() const { return found; }

 protected:
  // A connection has begun.
  virtual void meet(Clock::time_point) {}
  // There is a connection.
  virtual void talk(Clock::time_point now) = 0;
  // There is a connection, and it is to be brought to its end.
  virtual void takeLeave(Clock::time_point);
  // There is none. True when a new one is welcome.
  virtual bool waits(Clock::time_point) { return true; }
  virtual bool listens(Clock::time_point) { return true; }
  // The rovik is gone.
  virtual void lost(Clock::time_point);

  int between(int low, int high) { return std::uniform_int_distribution(low, high)(random); }
  std::chrono::milliseconds spell(int low, int high) {
    return std::chrono::milliseconds(between(low, high));
  }
  // Says a numbered line when its time has come.
  void sayAtPace(Clock::time_point now, std::chrono::milliseconds interval);
  // Passes on what is said, until there is no more room.
  bool passOn();

  const Link its;
  const std::unique_ptr<Place> where;
  std::unique_ptr<Line> line;  // null while there is no connection
  Voice voice;
  bool active = false;
  bool calm = false;

 private:
  void takeNext(Clock::time_point now);
  void liveOn(Clock::time_point now);
  bool listen();

  Ear ear;
  std::mt19937 random;  // the same in each run
  Clock::time_point next_line;
  std::int64_t met = 0;
  std::int64_t slowed_down = 0;
  std::vector<std::string> found;
};

// A peer of the link's character. `folder` is for what the file system has of it.
std::unique_ptr<Peer> makePeer(const Link& link, const std::string& folder);

}  // namespace soak
