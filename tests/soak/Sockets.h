// TCP without waiting: what the places for TCP and for TLS have in common.
#pragma once

#include <string>
#include <utility>

#include "Place.h"
#include "framework/Descriptor.h"

namespace soak {

// Passes on what a system call has returned; throws std::system_error with errno when it is
// negative.
int checked(long result, const char* call);

// A port that refuses while it is shut, and is nobody else's then. It is on a loopback address that
// only this process uses: a program that looks for somebody else on 127.0.0.1 does not come here.
class TcpDoor {
 public:
  TcpDoor();
  std::string commands(const char* mode) const;
  // None when nobody waits.
  drovane::Descriptor take() const;
  void open() const;
  void shut() const;

 private:
  drovane::Descriptor listener;
  int port;
};

class TcpLine : public Line {
 public:
  explicit TcpLine(drovane::Descriptor its_socket) : socket(std::move(its_socket)) {}
  std::size_t send(std::string_view bytes) override;
  bool receive(std::string& bytes) override;
  bool endSending() override;
  void breakOff() override;

 private:
  drovane::Descriptor socket;
};

}  // namespace soak
