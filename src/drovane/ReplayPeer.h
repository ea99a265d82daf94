// The place where a house connects to a device that is played: one house at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace drovane {

// Nothing waits. What the system refuses throws std::system_error.
class ReplayPeer {
 public:
  ReplayPeer() = default;
  virtual ~ReplayPeer() = default;
  ReplayPeer(const ReplayPeer&) = delete;
  ReplayPeer& operator=(const ReplayPeer&) = delete;

  // Where it is, for people.
  virtual std::string place() const = 0;
  // Takes the next house that has connected. False while there is none.
  virtual bool connect() = 0;
  // What becomes readable when there is something to connect or to receive; -1: look now and then.
  virtual int descriptor() const = 0;
  // Appends what the house has sent. False when it has ended the link.
  virtual bool receive(std::string& bytes) = 0;
  // How many of the bytes could be sent at once.
  virtual std::size_t send(std::string_view bytes) = 0;
  // The device ends the link: says so to the house, which still gets what was sent. True when that
  // is over; to be asked again until then, or until disconnect.
  virtual bool leave() = 0;
  // Lets go of the house. There can be another one.
  virtual void disconnect() = 0;
};

// A TCP port of 127.0.0.1; 0: any that is free.
std::unique_ptr<ReplayPeer> replayOnTcp(std::uint16_t port);

// A serial line that is found under `path`.
std::unique_ptr<ReplayPeer> replayOnSerialLine(const std::string& path);

}  // namespace drovane
