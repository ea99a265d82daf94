#include "support/Sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>

namespace bench {
namespace {

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

sockaddr* generic(sockaddr_in& address) { return reinterpret_cast<sockaddr*>(&address); }

int checked(int result, const char* call) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), call);
  return result;
}

}  // namespace

Listener::Listener() : socket(checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket")) {
  sockaddr_in address = loopback(0);
  socklen_t length = sizeof address;
  checked(bind(socket.get(), generic(address), length), "bind");
  checked(listen(socket.get(), SOMAXCONN), "listen");
  checked(getsockname(socket.get(), generic(address), &length), "getsockname");
  port = ntohs(address.sin_port);
}

drovane::Descriptor Listener::accept() const {
  return drovane::Descriptor(
      checked(accept4(socket.get(), nullptr, nullptr, SOCK_CLOEXEC), "accept"));
}

drovane::Descriptor connectTo(int port) {
  drovane::Descriptor socket(checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
  sockaddr_in address = loopback(port);
  checked(connect(socket.get(), generic(address), sizeof address), "connect");
  sendAtOnce(socket.get());
  return socket;
}

void sendAtOnce(int socket) {
  const int on = 1;
  checked(setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on), "setsockopt");
}

void writeAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0) throw std::system_error(errno, std::generic_category(), "send");
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

void awaitClose(int socket) {
  std::array<char, 64> ignored{};
  while (read(socket, ignored.data(), ignored.size()) > 0) continue;
}

}  // namespace bench
