// The link over TCP, which TLS builds on.
#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "GenericNet.h"
#include "SocketAddress.h"
#include "TimeValue.h"

int GenericNet::openTCP() {
  trace("opening TCP socket\n");
  if (!takeDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))) {
    report("allocate socket (errno: %d %s)\n", errno, std::strerror(errno));
    return -1;
  }
  l_addr = anyAddress();
  return bindLink() && findPeer() && connectPeer() ? 0 : abandonLink();
}

// The descriptor is closed already.
int GenericNet::closeTCP() { return 0; }

// Gives the socket the local address l_addr. False after the reason was reported.
bool GenericNet::bindLink() {
  if (::bind(fd, generic(l_addr), sizeof l_addr) >= 0) return true;
  report("bind (errno: %d %s)\n", errno, std::strerror(errno));
  return false;
}

// Makes p_addr from host and port; names are not looked up. False after the reason was reported.
bool GenericNet::findPeer() {
  p_addr = anyAddress();
  if (inet_aton(host, &p_addr.sin_addr) == 0) {
    report("invalid ip address (errno: %d %s)\n", errno, std::strerror(errno));
    return false;
  }
  p_addr.sin_port = htons(static_cast<std::uint16_t>(port));
  return true;
}

// Connects without blocking for longer than a second. False after the reason was reported.
bool GenericNet::connectPeer() {
  const int flags = fcntl(fd, F_GETFL, 0);
  if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
    report("fcntl (errno: %d %s)\n", errno, std::strerror(errno));
    return false;
  }
  // In progress, done or refused: the wait and SO_ERROR tell.
  static_cast<void>(::connect(fd, generic(p_addr), sizeof p_addr));
  fd_set writable;
  FD_ZERO(&writable);
  FD_SET(fd, &writable);
  TimeValue limit(1, 0);
  if (::select(fd + 1, nullptr, &writable, nullptr, &limit) < 1) {
    report("connect timeout\n");
    return false;
  }
  int so_error = 0;
  socklen_t length = sizeof so_error;
  ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &so_error, &length);
  if (so_error != 0) {
    report("getsockopt (errno: %d %s)\n", so_error, std::strerror(so_error));
    return false;
  }
  if (fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) < 0) {
    report("fcntl (errno: %d %s)\n", errno, std::strerror(errno));
    return false;
  }
  return true;
}

// Waits while the peer does not take more.
ssize_t GenericNet::writeTCP(const char* data, std::size_t length) {
  return ::send(fd, data, length, MSG_NOSIGNAL);
}
