// A process that plays the peers of a round trip: it writes one line at a time to one connection
// and takes the time until the line comes back, on another connection or on the same.
#pragma once

#include <string>

#include "support/Child.h"
#include "support/Sockets.h"

namespace bench {

struct RoundTrips {
  double median_us;
  double p99_us;
  double longest_us;
  int wrong;  // lines that came back changed or not in time; the first one ends the measuring
};

class RoundTripPeers {
 public:
  enum class Back : int { OtherConnection, SameConnection };

  // To be made before any thread.
  RoundTripPeers();

  int port() const { return out.port; }
  // Where the lines come back to with Back::OtherConnection.
  int backPort() const { return in.port; }

  // Whoever takes part has connected.
  RoundTrips measure(int rounds, Back back);

 private:
  struct Job;
  void play(int channel) const;

  const Listener out;
  const Listener in;
  Child process;
};

// The text of one line with its end, as it came in; shorter when the connection has ended.
std::string readLine(int socket);

}  // namespace bench
