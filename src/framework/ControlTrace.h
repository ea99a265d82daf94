// Tracing clients: what goes over the link of a rovik, each event as a line of JSON.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>

#include "TraceQueue.h"
#include "Waker.h"

namespace drovane {

// Belongs to the control thread. A link that nobody traces has no tap, and one that several clients
// trace has one. No rovik is held: one that is gone has ended its queue.
class ControlTrace {
 public:
  // Puts the tap on the link of the rovik of this name; null takes it off. Without such a rovik the
  // tap is let go.
  using SetTap = std::function<void(const std::string& rovik, std::shared_ptr<LinkTap> tap)>;

  ControlTrace(std::shared_ptr<Waker> its_waker, SetTap its_set_tap);
  // Takes every tap off.
  ~ControlTrace();
  ControlTrace(const ControlTrace&) = delete;
  ControlTrace& operator=(const ControlTrace&) = delete;

  // From now on the client is told each event of the link. `link_open`: as it is now.
  void add(std::uint64_t client, const std::string& rovik, bool link_open);
  // Of every link.
  void remove(std::uint64_t client);
  bool contains(std::uint64_t client) const;

  struct Receiver {
    std::function<void(std::uint64_t client, const std::string& line, std::uint64_t bytes)> line;
    // What a flood has cost the client since it was last told.
    std::function<void(std::uint64_t client, std::uint64_t events, std::uint64_t bytes)> lost;
    // The rovik is gone: nothing more comes of its link.
    std::function<void(std::uint64_t client, const std::string& rovik)> end;
  };

  // True when events wait to be handed out.
  bool waiting() const;
  // Hands out some of them, so that requests have their turn in a flood. The receiver's functions
  // must not call back.
  void handOut(const Receiver& to);
  // What a client is told at the end.
  static std::string endLine(const std::string& rovik);

 private:
  struct Link {
    std::string rovik;
    std::shared_ptr<TraceQueue> queue;
    std::map<std::uint64_t, std::int64_t> clients;  // since when, in nanoseconds of Clock
    TraceQueue::Batch batch;                        // in hand
    std::size_t events_done = 0;
    std::size_t bytes_done = 0;

    bool batchDone() const { return events_done == batch.events.size(); }
  };

  Link* find(const std::string& rovik);
  void release(const Link& link) const;
  static void handOutSome(Link& link, const Receiver& to);
  static void handOutOne(const Link& link, const Receiver& to);

  const std::shared_ptr<Waker> waker;
  const SetTap setTap;
  std::list<Link> links;
};

}  // namespace drovane
