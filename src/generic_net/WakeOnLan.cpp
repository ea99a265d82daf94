// Wake-on-LAN: a broadcast that a sleeping machine's network card recognises.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "Drovane.h"
#include "GenericNet.h"
#include "SocketAddress.h"

namespace {

constexpr std::size_t kMacSize = 6;
constexpr std::size_t kMacCopies = 16;
constexpr std::uint16_t kDiscardPort = 9;  // RFC 863; where such packets are sent by custom

using Packet = std::array<unsigned char, kMacSize*(1 + kMacCopies)>;

// Six bytes 0xFF, then the hardware address sixteen times.
Packet wakePacket(const unsigned char (&mac)[kMacSize]) {
  Packet packet;
  packet.fill(0xFF);
  for (auto at = packet.begin() + kMacSize; at != packet.end(); at += kMacSize)
    std::copy(std::begin(mac), std::end(mac), at);
  return packet;
}

// After a success the socket stays open for the life of the process: callers rely on it. It takes a
// number that links cannot use (readfds holds those below FD_SETSIZE), so that frequent waking does
// not use those up.
void keepOpen(int socket) {
  if (fcntl(socket, F_DUPFD_CLOEXEC, FD_SETSIZE) >= 0) ::close(socket);
}

}  // namespace

int GenericNet::sendWOL() {
  if (onTrial()) {
    trace("no WOL packet: this is a trial\n");
    return 0;
  }
  const Packet packet = wakePacket(wol_mac);
  trace("opening WOL UDP socket\n");
  const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (socket < 0) {
    report("allocate socket (errno: %d %s)\n", errno, std::strerror(errno));
    return -1;
  }
  if (!broadcastWake(socket, packet.data(), packet.size())) {
    ::close(socket);
    return -1;
  }
  keepOpen(socket);
  return 0;
}

bool GenericNet::broadcastWake(int socket, const unsigned char* packet, std::size_t size) {
  trace("setting UDP broadcast option\n");
  const int on = 1;
  if (::setsockopt(socket, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) == -1) {
    report("setsockopt (errno: %d %s)\n", errno, std::strerror(errno));
    return false;
  }
  const sockaddr_in local = anyAddress();
  if (::bind(socket, generic(local), sizeof local) < 0) {
    report("bind (errno: %d %s)\n", errno, std::strerror(errno));
    return false;
  }
  sockaddr_in destination = anyAddress();
  if (inet_aton(wol_adr, &destination.sin_addr) == 0) {
    report("invalid ip address (errno: %d %s)\n", errno, std::strerror(errno));
    return false;
  }
  destination.sin_port = htons(kDiscardPort);
  trace("sending WOL UDP broadcast\n");
  if (::sendto(socket, packet, size, 0, generic(destination), sizeof destination) < 0) {
    report("sendto (errno: %d %s)\n", errno, std::strerror(errno));
    return false;
  }
  return true;
}
