// What the peers do.
#include <array>

#include "Peer.h"

namespace soak {
namespace {

using std::chrono::milliseconds;

class SteadyPeer : public Peer {
 public:
  using Peer::Peer;

 protected:
  void talk(Clock::time_point now) override {
    sayAtPace(now, milliseconds(its.kind.handling == Handling::Reporter ? 100 : 2000));
  }
};

// Stays for a while, goes in one of several ways, and now and then refuses before it is back.
class ComingPeer : public Peer {
 public:
  using Peer::Peer;
  bool finished() const override { return calm && !connected(); }

 protected:
  void meet(Clock::time_point now) override { until = now + spell(200, 4000); }

  void talk(Clock::time_point now) override {
    sayAtPace(now, milliseconds(300));
    if (now < until) return;
    switch (voice.saidLast() ? kInOrder : between(kInOrder, kReset)) {
      case kInOrder:
        return goInOrder(now);
      case kCut:
        return goInMidLine(now);
      case kReset:
        line->breakOff();
        return lost(now);
    }
  }

  void takeLeave(Clock::time_point now) override { goInOrder(now); }

  bool waits(Clock::time_point now) override {
    if (calm && !shut) shutPlace(now);
    if (shut && !calm && now >= until) {
      where->open();
      shut = false;
    }
    return !shut;
  }

  void lost(Clock::time_point now) override {
    line.reset();
    if (between(1, 3) == 1) shutPlace(now);
  }

 private:
  enum Way { kInOrder, kCut, kReset };

  // The rovik reads to the end, and then closes. A serial line knows no such end: what its rovik
  // has not read when the plug is drawn is lost.
  void goInOrder(Clock::time_point now) {
    if (its.kind.transport == Transport::Serial) return goInMidLine(now);
    if (!voice.saidLast()) voice.sayLast();
    if (passOn()) line->endSending();
  }

  void goInMidLine(Clock::time_point now) {
    voice.mumble("#1234567");
    passOn();
    lost(now);
  }

  void shutPlace(Clock::time_point now) {
    where->shut();
    shut = true;
    until = now + spell(200, 1500);
  }

  Clock::time_point until;
  bool shut = false;
};

// Far more than all buffers on the way hold.
class FloodingPeer : public Peer {
 public:
  using Peer::Peer;
  bool finished() const override { return its.mayLose() || Peer::finished(); }

 protected:
  void meet(Clock::time_point now) override {
    left = 0;
    next = now + spell(500, 5000);
  }

  void talk(Clock::time_point now) override {
    if (left == 0 && now >= next) {
      left = its.kind.handling == Handling::Reporter ? 10000 : 1000;
      next = now + spell(10000, 15000);
    }
    while (left > 0 && passOn()) {
      voice.say(kPadding);
      --left;
    }
  }

 private:
  static constexpr std::size_t kPadding = 300;

  int left = 0;  // of the lines of a flood
  Clock::time_point next;
};

// Its rovik has to wait in a write; the rest of the house goes on when that is over. Sometimes the
// peer does not come back to its senses but ends the link.
class StallingPeer : public Peer {
 public:
  using Peer::Peer;
  bool finished() const override { return !connected() || Peer::finished(); }

 protected:
  void meet(Clock::time_point now) override {
    stalls_at = now + spell(5000, 15000);
    stalls_until = stalls_at + spell(800, 2000);
  }

  bool listens(Clock::time_point now) override { return calm || !stalled(now); }

  void talk(Clock::time_point now) override {
    if (stalled(now)) return;
    sayAtPace(now, milliseconds(500));
    if (now < stalls_until) return;
    if (between(1, 4) == 1) {
      line->breakOff();
      return lost(now);
    }
    meet(now);
  }

 private:
  bool stalled(Clock::time_point now) const { return now >= stalls_at && now < stalls_until; }

  Clock::time_point stalls_at;
  Clock::time_point stalls_until;
};

// Noise does not keep a rovik from the line that follows.
class GarblingPeer : public Peer {
 public:
  using Peer::Peer;
  bool finished() const override { return its.mayLose() || Peer::finished(); }

 protected:
  void meet(Clock::time_point now) override { next = now; }

  void talk(Clock::time_point now) override {
    if (now < next || !passOn()) return;
    next = now + spell(300, 1000);
    if (its.kind.transport == Transport::Udp) return talkInDatagrams();
    voice.mumble(noise() + '\n');
    voice.say();
  }

 private:
  // An empty one ends the rovik's link.
  void talkInDatagrams() {
    const std::string bytes = noise().substr(0, 1400);
    if (between(1, 50) == 1) line->send("");
    line->send(bytes);
    voice.say();
  }

  std::string noise() {
    switch (between(1, 6)) {
      case 1:
        return randomBytes(between(1, 300));
      case 2:
        return randomBytes(9000);
      case 3:
        return std::string(200, '\0');
      case 4:
        return std::string(static_cast<std::size_t>(between(4090, 4100)), 'x');
      case 5:
        return std::string(60000, 'y');
      default:
        return "\x1b[31m\r\r\\x00\\n%s%n\xff\xfe\n\n\n";
    }
  }

  // Without the sign that begins a numbered line.
  std::string randomBytes(int count) {
    std::string bytes;
    for (int i = 0; i < count; ++i) bytes += static_cast<char>(between(0, 255));
    for (char& byte : bytes)
      if (byte == '#') byte = '$';
    return bytes;
  }

  Clock::time_point next;
};

class VisitedPeer : public Peer {
 public:
  using Peer::Peer;
  bool finished() const override { return true; }

 protected:
  void talk(Clock::time_point) override {}
  void takeLeave(Clock::time_point) override {}
};

}  // namespace

std::unique_ptr<Peer> makePeer(const Link& link, const std::string& folder) {
  auto place = makePlace(link.kind.transport, folder, link.name);
  switch (link.kind.character) {
    case Character::Steady:
      return std::make_unique<SteadyPeer>(link, std::move(place));
    case Character::Comes:
      return std::make_unique<ComingPeer>(link, std::move(place));
    case Character::Floods:
      return std::make_unique<FloodingPeer>(link, std::move(place));
    case Character::Stalls:
      return std::make_unique<StallingPeer>(link, std::move(place));
    case Character::Garbles:
      return std::make_unique<GarblingPeer>(link, std::move(place));
    case Character::Visited:
      return std::make_unique<VisitedPeer>(link, std::move(place));
  }
  return nullptr;
}

}  // namespace soak
