// Watching clients: every routed message as a line of JSON.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Mailbox.h"
#include "Waker.h"
#include "WatchFilter.h"

namespace drovane {

// Belongs to the control thread. While nobody watches, the router makes no copies.
class ControlWatch {
 public:
  explicit ControlWatch(std::shared_ptr<Waker> its_waker);
  ~ControlWatch();
  ControlWatch(const ControlWatch&) = delete;
  ControlWatch& operator=(const ControlWatch&) = delete;

  using Clients = std::map<std::uint64_t, WatchFilter>;

  // A client that watches already gets another filter.
  void add(std::uint64_t client, WatchFilter filter = {});
  void remove(std::uint64_t client);
  const Clients& clients() const { return watching; }

  // True when messages wait to be handed out.
  bool waiting() const;
  // Hands out some of them, so that requests have their turn in a flood, each to the clients whose
  // filter it passes. `messages_lost` gets how many the flood has cost since the last call.
  using To = std::function<void(std::uint64_t client, const std::string& line)>;
  void handOut(const To& to, const std::function<void(std::uint64_t)>& messages_lost);

 private:
  void open();
  void close();
  bool handOutOne(RovikMessage& msg, const To& to) const;

  const std::shared_ptr<Waker> waker;
  std::shared_ptr<Mailbox> tap;  // null while nobody watches
  std::uint64_t lost_here = 0;   // for want of memory, since the tap was opened
  std::uint64_t reported_lost = 0;
  Clients watching;
  std::vector<RovikMessage*> batch;
  std::size_t batch_done = 0;
};

}  // namespace drovane
