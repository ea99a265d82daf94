// The other end of a rovik's TCP or UDP link, over the loopback interface and on the same thread:
// it takes links and bytes when it is told to and does not wait.
#pragma once

#include <string>
#include <string_view>

#include "framework/Descriptor.h"

namespace fuzzing {

class TcpPeer {
 public:
  TcpPeer();
  int port() const { return listen_port; }

  // Takes every link that waits; the newest is the one.
  void takeLinks();

  // As much as fits; what is not taken is lost.
  void send(std::string_view bytes) const;
  // What has come.
  std::string receiveAll() const;
  // Says that nothing more will come.
  void halfClose() const;
  // Breaks the link. Leaves nothing in the kernel that would use up ports.
  void reset() { link.reset(); }

 private:
  drovane::Descriptor listener;
  drovane::Descriptor link;
  int listen_port = 0;
};

// The port of this socket.
int localPort(int descriptor);

class UdpPeer {
 public:
  UdpPeer();
  // A datagram to that port of 127.0.0.1.
  void send(int port, std::string_view bytes) const;

 private:
  drovane::Descriptor socket;
};

}  // namespace fuzzing
