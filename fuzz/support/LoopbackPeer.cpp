#include "support/LoopbackPeer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>

#include "support/Property.h"

using drovane::Descriptor;

namespace fuzzing {
namespace {

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

const sockaddr* generic(const sockaddr_in& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

// Sent at once, and gone at once when it is closed: thousands of links a second would otherwise
// wait a minute each for their last packet.
void prepare(int link) {
  const int on = 1;
  const linger at_once{1, 0};
  ::setsockopt(link, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  ::setsockopt(link, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

}  // namespace

TcpPeer::TcpPeer() : listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  const sockaddr_in address = loopback(0);
  require(listener && ::bind(listener.get(), generic(address), sizeof address) == 0 &&
              ::listen(listener.get(), 256) == 0,
          "the peer listens");
  listen_port = localPort(listener.get());
}

void TcpPeer::takeLinks() {
  while (true) {
    Descriptor next(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!next) return;
    prepare(next.get());
    link = std::move(next);
  }
}

void TcpPeer::send(std::string_view bytes) const {
  if (link) ::send(link.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

std::string TcpPeer::receiveAll() const {
  std::string all;
  std::array<char, 16384> block;
  ssize_t count = 0;
  while (link && (count = ::recv(link.get(), block.data(), block.size(), MSG_DONTWAIT)) > 0)
    all.append(block.data(), static_cast<std::size_t>(count));
  return all;
}

void TcpPeer::halfClose() const {
  if (link) ::shutdown(link.get(), SHUT_WR);
}

int localPort(int descriptor) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  const int result = ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
  return result == 0 ? ntohs(address.sin_port) : 0;
}

UdpPeer::UdpPeer() : socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  require(static_cast<bool>(socket), "there is a socket for datagrams");
}

void UdpPeer::send(int port, std::string_view bytes) const {
  const sockaddr_in address = loopback(port);
  ::sendto(socket.get(), bytes.data(), bytes.size(), 0, generic(address), sizeof address);
}

}  // namespace fuzzing
