#include "TrialDevice.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

namespace drovane {

int TrialDevice::connect(const Rovik::TrialLink& kind) {
  std::array<int, 2> ends{};
  const int form = kind.datagrams ? SOCK_SEQPACKET : SOCK_STREAM;
  if (::socketpair(AF_UNIX, form | SOCK_CLOEXEC, 0, ends.data()) != 0) return -1;
  const std::lock_guard guard(lock);
  listen();
  link = Descriptor(ends[1]);
  end = kind.unit_end;
  ends_at_close = kind.ends_at_close;
  return ends[0];
}

bool TrialDevice::connected() {
  const std::lock_guard guard(lock);
  listen();
  return static_cast<bool>(link);
}

bool TrialDevice::say(const std::string& unit) {
  const std::lock_guard guard(lock);
  const std::string bytes = unit + end;
  if (!link || ::send(link.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) !=
                   static_cast<ssize_t>(bytes.size()))
    return false;
  return !ends_at_close || ::shutdown(link.get(), SHUT_WR) == 0;
}

// A unit that ends with the link is taken when the rovik has closed its end, too.
bool TrialDevice::taken() {
  const std::lock_guard guard(lock);
  listen();
  int bytes = 0;
  if (!link) return true;
  return !ends_at_close && ::ioctl(link.get(), TIOCOUTQ, &bytes) == 0 && bytes == 0;
}

bool TrialDevice::endsAtClose() {
  const std::lock_guard guard(lock);
  return ends_at_close;
}

std::string TrialDevice::heard() {
  const std::lock_guard guard(lock);
  listen();
  return std::exchange(received, {});
}

// Reads what is there, and lets go of a link that the rovik has closed. A rovik that goes on
// writing does not keep it for ever.
void TrialDevice::listen() {
  std::array<char, 4096> block;
  while (link && received.size() < kMostAtOnce) {
    const ssize_t count = ::recv(link.get(), block.data(), block.size(), MSG_DONTWAIT);
    if (count > 0) {
      received.append(block.data(), static_cast<std::size_t>(count));
    } else if (count < 0 && errno == EINTR) {
      continue;
    } else if (count < 0 && errno == EAGAIN) {
      return;
    } else {
      link = Descriptor();
    }
  }
}

}  // namespace drovane
