// Where a rovik finds its peer, and the connection that comes about there, over every transport.
// Nothing here waits.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "Plan.h"

namespace soak {

// One connection, as the peer sees it.
class Line {
 public:
  virtual ~Line() = default;
  // How many of the bytes have found room.
  virtual std::size_t send(std::string_view bytes) = 0;
  // Appends what has come. False when the rovik is gone.
  virtual bool receive(std::string& bytes) = 0;
  // Nothing more will be sent, but still received. False when there is no room yet to say so.
  virtual bool endSending() { return true; }
  // The end comes at once, with an error where the transport knows one.
  virtual void breakOff() {}
};

class Place {
 public:
  virtual ~Place() = default;
  // The commands by which a rovik finds this place.
  virtual std::string commands() const = 0;
  // The next connection, when a rovik is there for one; null when not.
  virtual std::unique_ptr<Line> welcome() = 0;
  // Nobody gets in until it is opened again.
  virtual void shut() {}
  virtual void open() {}
};

// A place that is open. `folder` is for what the file system has of it.
std::unique_ptr<Place> makePlace(Transport transport, const std::string& folder,
                                 const std::string& name);

// One for each transport.
std::unique_ptr<Place> makeTcpPlace();
std::unique_ptr<Place> makeTlsPlace();
std::unique_ptr<Place> makeUdpPlace();
std::unique_ptr<Place> makeSerialPlace(const std::string& path);

}  // namespace soak
