// A serial line that ends in a simulated device.
#pragma once

#include <filesystem>
#include <string>

#include "Simulator.h"

namespace simulator {

// Both ends of a pseudo-terminal, which is to a program what a serial port is: the device's, and
// the one that clients open. The latter is held open here too, so that the line is there while no
// client is.
struct PseudoTerminal {
  PseudoTerminal();

  Descriptor device_end;
  Descriptor client_end;
  std::string name;  // what clients open

 private:
  void passBytesOn() const;
};

// A symbolic link for the life of the object; none for an empty path. One that a device left behind
// when it was killed is replaced: it leads nowhere, or to the terminal's name, which is given anew.
// Anything else is left alone.
class Link {
 public:
  Link(const std::string& target, std::filesystem::path its_path);
  ~Link();
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

 private:
  const std::filesystem::path path;
};

// A line that is plugged in as long as the object lives, and is found under `its_link` unless that
// is empty.
class SerialLine : public PlainConnection {
 public:
  explicit SerialLine(const std::string& its_link) : SerialLine(PseudoTerminal(), its_link) {}
  // Where clients find it.
  const std::string& name() const { return path; }
  // What nobody reads is lost, as on a wire: a client that comes later does not find it.
  bool send(const std::string& text) override;

 private:
  SerialLine(PseudoTerminal&& terminal, const std::string& its_link);

  const Descriptor client_end;
  const std::string path;
  const Link link;
};

// A line of its own each time that it is plugged in; found under `link` unless that is empty.
Simulation::PlugIn atSerialLine(const std::string& link);

}  // namespace simulator
