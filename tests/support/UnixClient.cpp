#include "UnixClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "Eventually.h"

UnixClient::UnixClient(const std::string& path)
    : socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un target{};
  target.sun_family = AF_UNIX;
  if (path.size() >= sizeof target.sun_path) throw std::invalid_argument("path too long");
  std::memcpy(target.sun_path, path.data(), path.size());
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0)
    throw std::system_error(errno, std::generic_category(), "connect");
}

bool UnixClient::send(std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t count = ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

bool UnixClient::readSome() {
  pollfd watched = {socket.get(), POLLIN, 0};
  const auto limit = std::chrono::milliseconds(kPatienceOfTests);
  if (::poll(&watched, 1, static_cast<int>(limit.count())) <= 0) return false;
  std::array<char, 65536> block;
  const ssize_t count = ::recv(socket.get(), block.data(), block.size(), 0);
  if (count <= 0) return false;
  input.append(block.data(), static_cast<std::size_t>(count));
  return true;
}

std::string UnixClient::readLine() {
  while (input.find('\n') == std::string::npos)
    if (!readSome()) return "";
  const std::size_t end = input.find('\n');
  std::string line = input.substr(0, end);
  input.erase(0, end + 1);
  return line;
}

bool UnixClient::seesEnd() {
  while (readSome()) {
  }
  char byte = 0;
  const ssize_t count = ::recv(socket.get(), &byte, 1, MSG_DONTWAIT);
  return count == 0 || (count < 0 && errno != EAGAIN);
}

void UnixClient::endSending() const { ::shutdown(socket.get(), SHUT_WR); }
