// The other end of a TCP link over the real loopback interface, and the ways in which a real one
// fails.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "framework/Descriptor.h"

// Listens on a free port of 127.0.0.1 and does to its link what the test says. A peer that is told
// nothing accepts connections (the kernel does) and keeps silent. Every operation that fails or
// finds nothing in time throws.
class TcpPeer {
 public:
  TcpPeer();
  int port() const { return listen_port; }

  // Takes the next link; an earlier one is closed.
  void accept();
  // Whether a link waits to be taken.
  bool linkWaits() const;
  bool hasLink() const { return static_cast<bool>(link); }

  void send(std::string_view bytes);
  // The next `count` bytes; fewer when the other side ends the link or nothing more comes in time.
  std::string receive(std::size_t count);
  // Whether the other side ends the link in time; what it still sent is dropped.
  bool seesEnd();

  // Ends the link in good order.
  void close();
  // Says that nothing more will come, but still receives.
  void halfClose();
  // Breaks the link: the other side's next read or write fails.
  void reset();

 private:
  drovane::Descriptor listener;
  drovane::Descriptor link;
  int listen_port;
};

// A port of 127.0.0.1 that refuses connections, for as long as this object lives.
class RefusingPort {
 public:
  RefusingPort();
  int port() const { return bound_port; }

 private:
  drovane::Descriptor holder;
  int bound_port;
};

// A port of 127.0.0.1 whose queue of waiting connections is full: the kernel drops further
// requests, so that they are neither taken nor refused.
class UnansweringPort {
 public:
  UnansweringPort();
  int port() const { return listen_port; }

 private:
  drovane::Descriptor listener;
  std::vector<drovane::Descriptor> waiting;
  int listen_port;
};
