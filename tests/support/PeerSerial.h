// The device's end of a serial line: a pseudo-terminal of which the rovik opens the other end.
#pragma once

#include <termios.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "framework/Descriptor.h"

// Says and hears bytes as they are. A device that is told nothing keeps silent and takes what comes
// until the line's buffers are full. Every operation that fails or finds no room in time throws.
class SerialPeer {
 public:
  // The line is left as the system makes it: by lines, with an echo and with signals.
  SerialPeer();
  // What the rovik opens.
  const std::string& path() const { return its_path; }

  // All of it, waiting for room.
  void send(std::string_view bytes);
  // As much as there is room for at once; the number of bytes.
  std::size_t sendSome(std::string_view bytes);
  // The next `count` bytes; fewer when the other side closes the port or nothing more comes in
  // time.
  std::string receive(std::size_t count);
  // Everything up to and including `end`, under the same conditions.
  std::string receiveUntil(std::string_view end);
  // Whether the other side closes the port in time; what it still sent is dropped.
  bool seesEnd();

  // How the rovik's end is set up.
  termios settings() const;
  void set(const termios& settings);

  // The plug is drawn: the path is gone, and an end that is open is dead.
  void unplug();

 private:
  bool take(std::string& bytes, std::size_t most);

  drovane::Descriptor line;
  drovane::Descriptor dead_end;  // after unplug
  std::string its_path;
};
