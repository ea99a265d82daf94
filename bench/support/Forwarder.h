// A rovik that sends the text of every data value to a peer of its own, as a line.
#pragma once

#include <string>

#include "Rovik.h"
#include "support/Sockets.h"

namespace bench {

class Forwarder : public Rovik {
 public:
  explicit Forwarder(int port) : socket(connectTo(port)) {}
  int selectMM(RovikMessage* msg) override {
    if (msg->type != MM_DATA) return 0;
    line.assign(static_cast<MMData*>(msg)->value_s).push_back('\n');
    writeAll(socket.get(), line);
    return 0;
  }

 private:
  const drovane::Descriptor socket;
  std::string line;
};

}  // namespace bench
