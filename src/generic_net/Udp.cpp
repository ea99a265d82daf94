// The link over UDP: datagrams from anybody but this machine itself.
#include <ifaddrs.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>

#include "GenericNet.h"
#include "SocketAddress.h"

namespace {

// A peer on a port above this one is listened to on the same port of this machine, so that its
// broadcasts and its answers to that port arrive.
constexpr int kLastEphemeralPeer = 1024;

struct FreeInterfaces {
  void operator()(ifaddrs* list) const { freeifaddrs(list); }
};

bool isAddress(const sockaddr* entry, in_addr wanted) {
  if (entry == nullptr || entry->sa_family != AF_INET) return false;
  sockaddr_in address{};
  std::memcpy(&address, entry, sizeof address);
  return address.sin_addr.s_addr == wanted.s_addr;
}

// Whether one of this machine's interfaces has the address now, the loopback's included. False when
// the interfaces cannot be listed.
bool isOwnAddress(in_addr wanted) {
  ifaddrs* first = nullptr;
  if (getifaddrs(&first) != 0) return false;
  const std::unique_ptr<ifaddrs, FreeInterfaces> list(first);
  for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next)
    if (isAddress(entry->ifa_addr, wanted)) return true;
  return false;
}

}  // namespace

int GenericNet::openUDP() {
  trace("opening UDP socket\n");
  if (!takeDescriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))) {
    report("allocate socket (errno: %d %s)\n", errno, std::strerror(errno));
    return -1;
  }
  trace("setting UDP broadcast option\n");
  const int on = 1;
  if (::setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) == -1) {
    report("setsockopt (errno: %d %s)\n", errno, std::strerror(errno));
    return abandonLink();
  }
  l_addr = anyAddress();
  if (port > kLastEphemeralPeer) l_addr.sin_port = htons(static_cast<std::uint16_t>(port));
  return bindLink() && findPeer() ? 0 : abandonLink();
}

// The descriptor is closed already.
int GenericNet::closeUDP() { return 0; }

// One datagram; each stands alone. The kernel may drop one with a wrong checksum after it has
// called the socket readable, so the read does not wait.
std::optional<int> GenericNet::readUDP() {
  emptyInbuf();
  sockaddr_in sender{};
  socklen_t size = sizeof sender;
  const auto received =
      static_cast<int>(::recvfrom(fd, inbuf, kBufferSize, MSG_DONTWAIT, generic(sender), &size));
  if (received < 0 && errno == EAGAIN) return std::nullopt;
  if (received < 1) return received;
  std::array<char, INET_ADDRSTRLEN> address{};
  inet_ntop(AF_INET, &sender.sin_addr, address.data(), address.size());
  trace("message from %s:%d length %d\n", address.data(), ntohs(sender.sin_port), received);
  if (!isOwnAddress(sender.sin_addr)) return received;
  trace("udp message sent by this host, discarding message (loop back)\n");
  emptyInbuf();
  return std::nullopt;
}

ssize_t GenericNet::writeUDP(const char* data, std::size_t length) {
  return ::sendto(fd, data, length, 0, generic(p_addr), sizeof p_addr);
}
