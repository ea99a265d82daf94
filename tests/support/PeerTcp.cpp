#include "support/PeerTcp.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "support/Eventually.h"

using drovane::Descriptor;

namespace {

int checked(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

Descriptor tcpSocket(int flags = 0) {
  return Descriptor(checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0), "socket"));
}

// A socket that holds a free port of 127.0.0.1.
Descriptor boundSocket() {
  Descriptor bound = tcpSocket();
  const sockaddr_in address = loopback(0);
  checked(::bind(bound.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
  return bound;
}

int portOf(const Descriptor& bound) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  checked(::getsockname(bound.get(), reinterpret_cast<sockaddr*>(&address), &length),
          "getsockname");
  return ntohs(address.sin_port);
}

bool readableWithin(int descriptor, std::chrono::milliseconds limit) {
  pollfd watched{descriptor, POLLIN, 0};
  return checked(::poll(&watched, 1, static_cast<int>(limit.count())), "poll") == 1;
}

}  // namespace

TcpPeer::TcpPeer() : listener(boundSocket()), listen_port(portOf(listener)) {
  // Room for a test that opens link after link before it takes one.
  checked(::listen(listener.get(), 256), "listen");
}

bool TcpPeer::linkWaits() const {
  return readableWithin(listener.get(), std::chrono::milliseconds(0));
}

void TcpPeer::accept() {
  if (!readableWithin(listener.get(), kPatienceOfTests))
    throw std::runtime_error("nobody connects to the peer");
  link.reset(checked(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC), "accept4"));
  const int on = 1;
  checked(::setsockopt(link.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on), "TCP_NODELAY");
}

void TcpPeer::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const auto sent = ::send(link.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0) throw std::system_error(errno, std::generic_category(), "send");
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

std::string TcpPeer::receive(std::size_t count) {
  std::string bytes(count, '\0');
  std::size_t got = 0;
  while (got < count && readableWithin(link.get(), kPatienceOfTests)) {
    const auto received = ::recv(link.get(), &bytes[got], count - got, 0);
    if (received <= 0) break;
    got += static_cast<std::size_t>(received);
  }
  bytes.resize(got);
  return bytes;
}

bool TcpPeer::seesEnd() {
  std::array<char, 4096> dropped;
  while (readableWithin(link.get(), kPatienceOfTests))
    if (::recv(link.get(), dropped.data(), dropped.size(), 0) <= 0) return true;
  return false;
}

void TcpPeer::close() { link.reset(); }

void TcpPeer::halfClose() { checked(::shutdown(link.get(), SHUT_WR), "shutdown"); }

void TcpPeer::reset() {
  const linger at_once{1, 0};
  checked(::setsockopt(link.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once), "SO_LINGER");
  link.reset();
}

RefusingPort::RefusingPort() : holder(boundSocket()), bound_port(portOf(holder)) {}

UnansweringPort::UnansweringPort() : listener(boundSocket()), listen_port(portOf(listener)) {
  checked(::listen(listener.get(), 0), "listen");
  const sockaddr_in address = loopback(listen_port);
  // The kernel takes one or two more than asked for; a request that is still on its way after
  // these is one that it has dropped.
  while (waiting.size() < 16) {
    waiting.push_back(tcpSocket(SOCK_NONBLOCK));
    const int client = waiting.back().get();
    static_cast<void>(
        ::connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    pollfd watched{client, POLLOUT, 0};
    if (checked(::poll(&watched, 1, 200), "poll") == 0) return;
  }
  throw std::runtime_error("the queue of a listening socket does not fill up");
}
