// A device on a TCP port.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "ReplayPeer.h"
#include "framework/Descriptor.h"

namespace drovane {
namespace {

void check(bool fine, const std::string& what) {
  if (!fine) throw std::system_error(errno, std::generic_category(), what);
}

bool later(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

Descriptor listenOn(std::uint16_t port) {
  Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  check(static_cast<bool>(socket), "socket");
  const int on = 1;
  check(::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0, "setsockopt");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  check(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
        "127.0.0.1 port " + std::to_string(port));
  check(::listen(socket.get(), 1) == 0, "listen");
  return socket;
}

class TcpReplay final : public ReplayPeer {
 public:
  explicit TcpReplay(std::uint16_t port) : listener(listenOn(port)) {}

  std::string place() const override {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    check(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size) == 0,
          "getsockname");
    return "127.0.0.1 port " + std::to_string(ntohs(address.sin_port));
  }

  bool connect() override {
    link.reset(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!link) {
      check(later(errno) || errno == ECONNABORTED, "accept");
      return false;
    }
    leaving = false;
    // Each piece is on its way at its time. What refuses that is a house that has gone already.
    const int on = 1;
    if (::setsockopt(link.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) link.reset();
    return static_cast<bool>(link);
  }

  int descriptor() const override { return link ? link.get() : listener.get(); }

  bool receive(std::string& bytes) override {
    std::array<char, 65536> block;
    const ssize_t count = ::recv(link.get(), block.data(), block.size(), 0);
    if (count < 0) return later(errno);
    bytes.append(block.data(), static_cast<std::size_t>(count));
    return count > 0;
  }

  // A link that is broken takes no bytes; receive tells that it is.
  std::size_t send(std::string_view bytes) override {
    const ssize_t count = ::send(link.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
  }

  // The house reads what was sent, then the end, and closes its side; a socket that was closed with
  // bytes unread would take from it what it has not read.
  bool leave() override {
    if (!std::exchange(leaving, true)) ::shutdown(link.get(), SHUT_WR);
    std::string rest;
    return !receive(rest);
  }

  void disconnect() override { link.reset(); }

 private:
  const Descriptor listener;
  Descriptor link;
  bool leaving = false;
};

}  // namespace

std::unique_ptr<ReplayPeer> replayOnTcp(std::uint16_t port) {
  return std::make_unique<TcpReplay>(port);
}

}  // namespace drovane
