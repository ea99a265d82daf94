// Two connected sockets: a rovik's link and the peer that a test plays.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>
#include <system_error>

#include "framework/Descriptor.h"

class SocketPair {
 public:
  SocketPair() {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
      throw std::system_error(errno, std::generic_category(), "socketpair");
    near.reset(ends[0]);
    far.reset(ends[1]);
  }

  // All of it, waiting for room; false when the other end is gone.
  bool send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t count = ::send(far.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count < 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
  }

  drovane::Descriptor near;  // the rovik's
  drovane::Descriptor far;   // the peer's
};
