#include "support/PeerUdp.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <system_error>

#include "support/Eventually.h"

namespace {

constexpr int kAttempts = 1000;
constexpr std::size_t kLargestDatagram = 65535;

int checked(ssize_t result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return static_cast<int>(result);
}

sockaddr_in addressOf(const std::string& dotted, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (inet_aton(dotted.c_str(), &address.sin_addr) == 0)
    throw std::invalid_argument("no address: " + dotted);
  return address;
}

const sockaddr* generic(const sockaddr_in& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

sockaddr* generic(sockaddr_in& address) { return reinterpret_cast<sockaddr*>(&address); }

int randomBetween(int low, int high) {
  static std::mt19937 random{std::random_device{}()};
  return std::uniform_int_distribution(low, high)(random);
}

std::string randomLoopback() {
  const auto part = [] { return std::to_string(randomBetween(1, 254)); };
  return "127." + part() + "." + part() + "." + part();
}

// Tries addresses or ports until one is not taken.
template <typename Attempt>
auto firstFree(Attempt attempt) {
  for (int tried = 1;; ++tried) {
    try {
      return attempt();
    } catch (const std::system_error& error) {
      if (error.code() != std::errc::address_in_use || tried == kAttempts) throw;
    }
  }
}

bool readable(int descriptor, std::chrono::milliseconds within) {
  pollfd watched{descriptor, POLLIN, 0};
  return checked(::poll(&watched, 1, static_cast<int>(within.count())), "poll") == 1;
}

}  // namespace

UdpPeer::UdpPeer(const std::string& its_address, int its_port)
    : socket(checked(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket")),
      bound_address(its_address) {
  const int on = 1;
  checked(::setsockopt(socket.get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on), "SO_BROADCAST");
  const sockaddr_in local = addressOf(its_address, its_port);
  checked(::bind(socket.get(), generic(local), sizeof local), "bind");
  bound_port = localPortOf(socket.get());
}

UdpPeer UdpPeer::foreign(int port) {
  return firstFree([&] { return UdpPeer(randomLoopback(), port); });
}

void UdpPeer::send(std::string_view bytes, const std::string& to, int to_port) const {
  const sockaddr_in address = addressOf(to, to_port);
  checked(::sendto(socket.get(), bytes.data(), bytes.size(), 0, generic(address), sizeof address),
          "sendto");
}

Datagram UdpPeer::receive() const {
  if (!readable(socket.get(), kPatienceOfTests))
    throw std::runtime_error("no datagram comes to the peer");
  Datagram datagram{std::string(kLargestDatagram, '\0'), "", 0};
  sockaddr_in sender{};
  socklen_t length = sizeof sender;
  const int size = checked(::recvfrom(socket.get(), datagram.bytes.data(), kLargestDatagram, 0,
                                      generic(sender), &length),
                           "recvfrom");
  datagram.bytes.resize(static_cast<std::size_t>(size));
  char dotted[INET_ADDRSTRLEN];
  datagram.address = inet_ntop(AF_INET, &sender.sin_addr, dotted, sizeof dotted);
  datagram.port = ntohs(sender.sin_port);
  return datagram;
}

bool UdpPeer::datagramWaits() const { return readable(socket.get(), std::chrono::milliseconds(0)); }

int freeUdpPort() {
  return firstFree([] { return UdpPeer("0.0.0.0", randomBetween(10000, 32000)).port(); });
}

int localPortOf(int descriptor) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  checked(::getsockname(descriptor, generic(address), &length), "getsockname");
  return ntohs(address.sin_port);
}
