// What the tests of the serial line share: a rovik whose link is a pseudo-terminal.
#pragma once

#include <termios.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "NetTest.h"
#include "framework/Descriptor.h"
#include "support/PeerSerial.h"

// Every member of the record, so that two that are equal are equal in everything.
std::string textOf(const termios& settings);

// What a port is to be set to: raw bytes in this format (of c_cflag) at this speed.
termios rawSettings(tcflag_t format = CS8, speed_t speed = B9600);

// What a pseudo-terminal makes of that: it has eight bits and no parity, whatever it is told
// (Linux, drivers/tty/pty.c), and keeps everything else.
termios asAPseudoTerminalKeeps(termios settings);

// The terminal at `path`, opened beside the rovik: non-blocking, and set to raw bytes.
drovane::Descriptor rawTerminal(const std::string& path);

// Writes until there is no room; the number of bytes.
std::size_t fillUp(int terminal);

class SerialLink : public NetTest {
 protected:
  SerialLink();

  // The port that "open" opens.
  void pointAt(const std::string& path);
  // Opens the port. What that logs is not among newLines.
  void open();
  // The settings of the open port.
  termios portSettings() const;

  // The device sends bytes, and all of them wait on the rovik's link.
  void deliver(std::string_view bytes);
  // The device sends bytes, and all of them are read.
  void feed(std::string_view bytes);
  // Draws the plug and waits until the port shows it.
  void unplug();

  SerialPeer device;
};
