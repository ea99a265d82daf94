// Loopback TCP connections. Everything here throws std::system_error on failure.
#pragma once

#include <string_view>

#include "framework/Descriptor.h"

namespace bench {

// A listener on a free port of 127.0.0.1.
struct Listener {
  Listener();
  drovane::Descriptor socket;
  int port = 0;
  drovane::Descriptor accept() const;
};

// Without Nagle's algorithm: a lone line leaves at once.
drovane::Descriptor connectTo(int port);
void sendAtOnce(int socket);

void writeAll(int socket, std::string_view bytes);

// Waits until the peer has closed its side.
void awaitClose(int socket);

}  // namespace bench
