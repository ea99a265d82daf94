#include "Sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>

#include "support/PeerUdp.h"

namespace soak {

using drovane::Descriptor;

namespace {

// As small as a device's: back-pressure reaches the other side soon, in both directions. On
// loopback a segment would be large enough for megabytes to wait in the rovik's socket.
constexpr int kBuffer = 16384;
constexpr int kSegment = 1460;

// 127.1.0.0 and above; a process number has 22 bits at most.
std::uint32_t addressOfThisProcess() {
  return 0x7f010000U + static_cast<std::uint32_t>(::getpid());
}

std::string dotted(std::uint32_t address) {
  const in_addr network{htonl(address)};
  std::array<char, INET_ADDRSTRLEN> text{};
  return inet_ntop(AF_INET, &network, text.data(), text.size());
}

void set(const Descriptor& socket, int level, int option, int value) {
  checked(::setsockopt(socket.get(), level, option, &value, sizeof value), "setsockopt");
}

}  // namespace

int checked(long result, const char* call) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), call);
  return static_cast<int>(result);
}

TcpDoor::TcpDoor()
    : listener(
          checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket")) {
  set(listener, SOL_SOCKET, SO_RCVBUF, kBuffer);
  set(listener, SOL_SOCKET, SO_SNDBUF, kBuffer);
  set(listener, IPPROTO_TCP, TCP_MAXSEG, kSegment);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(addressOfThisProcess());
  checked(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
          "bind");
  port = localPortOf(listener.get());
  open();
}

std::string TcpDoor::commands(const char* mode) const {
  return std::string("  mode ") + mode + "\n  host " + dotted(addressOfThisProcess()) +
         "\n  port " + std::to_string(port) + "\n";
}

Descriptor TcpDoor::take() const {
  Descriptor taken(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!taken && errno == EMFILE) checked(-1, "accept4");
  if (taken) set(taken, IPPROTO_TCP, TCP_NODELAY, 1);
  return taken;
}

void TcpDoor::open() const { checked(::listen(listener.get(), 256), "listen"); }

// The socket listens no more but keeps its port, which therefore refuses.
void TcpDoor::shut() const { checked(::shutdown(listener.get(), SHUT_RDWR), "shutdown"); }

std::size_t TcpLine::send(std::string_view bytes) {
  const ssize_t sent = ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  return static_cast<std::size_t>(std::max<ssize_t>(sent, 0));
}

bool TcpLine::receive(std::string& bytes) {
  std::array<char, 65536> block;
  while (true) {
    const ssize_t count = ::recv(socket.get(), block.data(), block.size(), 0);
    if (count < 0) return errno == EAGAIN || errno == EINTR;
    if (count == 0) return false;
    bytes.append(block.data(), static_cast<std::size_t>(count));
  }
}

bool TcpLine::endSending() {
  ::shutdown(socket.get(), SHUT_WR);  // fails when the rovik is gone: receive notices
  return true;
}

void TcpLine::breakOff() {
  const linger at_once{1, 0};
  checked(::setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once), "SO_LINGER");
}

}  // namespace soak
