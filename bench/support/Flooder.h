// A process that sends lines to whoever connects, as fast as they are taken, until it is told to
// stop.
#pragma once

#include "support/Child.h"
#include "support/Sockets.h"

namespace bench {

class Flooder {
 public:
  // To be made before any thread.
  Flooder();
  int port() const { return listener.port; }

  // Whoever is flooded has connected.
  void start() { process.send(Step::Start); }
  // The stream ends; comes back when the other side has read it all and closed.
  void stop();

 private:
  enum class Step : int { Start, Stop };
  void serve(int channel) const;

  const Listener listener;
  Child process;
};

}  // namespace bench
