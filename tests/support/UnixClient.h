// A bare client of a Unix stream socket, for all that a decent one does not do.
#pragma once

#include <string>
#include <string_view>

#include "framework/Descriptor.h"

class UnixClient {
 public:
  // Throws std::system_error when it cannot connect.
  explicit UnixClient(const std::string& path);

  // False when the other side is gone.
  bool send(std::string_view bytes) const;
  // The next line without its end; empty when none comes in time or the other side is gone.
  std::string readLine();
  // Whether the other side ends the connection in time; what it still sends is dropped.
  bool seesEnd();
  // Nothing more will be sent.
  void endSending() const;
  void close() { socket.reset(); }

 private:
  bool readSome();

  drovane::Descriptor socket;
  std::string input;
};
