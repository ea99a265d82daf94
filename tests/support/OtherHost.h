// Networks of a test's own (network namespaces), for what needs a second host, routes or addresses
// that the machine has not. They take root; a test that may not make one skips with refusal().
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "framework/Descriptor.h"
#include "support/PeerUdp.h"

// While it lives, the calling thread, and every thread and process that it starts, is in a new
// network with nothing but a working "lo". Sockets belong to the network in which they were made.
// The thread that made it must destroy it.
class OwnNetwork {
 public:
  // Why this process may not make a network; empty when it may.
  static std::string refusal();

  OwnNetwork();
  ~OwnNetwork();
  OwnNetwork(const OwnNetwork&) = delete;
  OwnNetwork& operator=(const OwnNetwork&) = delete;

  // Runs "ip WORD..." in the network of the calling thread; throws with its complaint when it
  // fails.
  static void ip(const std::vector<std::string>& words);

 private:
  drovane::Descriptor before;
};

// A second host on a link with this one, which is moved to a network of its own for that. Here the
// link is called "near", there "far"; each end knows the other's subnet and no further route.
class OtherHost {
 public:
  static constexpr char kAddress[] = "192.0.2.2";
  static constexpr char kAddressHere[] = "192.0.2.1";
  static constexpr char kBroadcast[] = "192.0.2.255";

  OtherHost();

  // Runs `body` on the calling thread as if on the other host.
  void run(const std::function<void()>& body) const;
  // A socket of the other host's, on every address of its.
  UdpPeer udpPeer(int port = 0) const;

 private:
  OwnNetwork here;
  drovane::Descriptor network_here;
  drovane::Descriptor network_there;
};
