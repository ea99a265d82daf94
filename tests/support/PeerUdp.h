// The other end of a UDP link.
#pragma once

#include <string>
#include <string_view>

#include "framework/Descriptor.h"

struct Datagram {
  std::string bytes;
  std::string address;  // the sender's
  int port;

  bool operator==(const Datagram&) const = default;
};

// A UDP socket that may broadcast. It belongs to the network in which it was made, wherever it is
// used later. Every operation that fails or finds nothing in time throws.
class UdpPeer {
 public:
  // Port 0: a free one.
  explicit UdpPeer(const std::string& its_address, int its_port = 0);
  // On a loopback address that nobody else uses with this port and that no interface lists: a rovik
  // takes what comes from there for a foreign host's.
  static UdpPeer foreign(int port);

  const std::string& address() const { return bound_address; }
  int port() const { return bound_port; }

  void send(std::string_view bytes, const std::string& to, int to_port) const;
  Datagram receive() const;
  // Whether a datagram waits to be received.
  bool datagramWaits() const;

 private:
  drovane::Descriptor socket;
  std::string bound_address;
  int bound_port;
};

// A port above 1024 that is free on every address of this machine. It lies below those that the
// kernel gives away, so that it is still free when the test takes it.
int freeUdpPort();

// The local port of a socket.
int localPortOf(int descriptor);
