// Where the link opens and closes, over TCP.
#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "Drovane.h"
#include "GenericNet.h"
#include "SocketAddress.h"
#include "TimeValue.h"

namespace {

// Holds a flag up for the life of a scope, also when a script error unwinds through it.
class During {
 public:
  explicit During(bool& its_flag) : flag(its_flag) { flag = true; }
  ~During() { flag = false; }
  During(const During&) = delete;
  During& operator=(const During&) = delete;

 private:
  bool& flag;
};

// A socket that fits into readfds. -1 with errno set.
int linkSocket(int kind) {
  const int descriptor = ::socket(AF_INET, kind | SOCK_CLOEXEC, 0);
  if (descriptor < FD_SETSIZE) return descriptor;
  ::close(descriptor);
  errno = EMFILE;
  return -1;
}

}  // namespace

int GenericNet::openGeneric() {
  static constexpr ScriptEvent kRcvOpen = {
      "ROVIK_RCVOPEN",
      "lua ROVIK_RCVOPEN did not return expected timer info, using default timer\n"};
  if (fd >= 0) return 0;
  emptyInbuf();
  int result = -1;
  if (commode == COM_TCP) result = openTCP();
  if (result < 0) {
    report("open failed\n");
    return result;
  }
  ++link_epoch;
  if (lua_state == nullptr) return 0;
  Drovane::global.log(LOG_LEVEL_DEBUG, id, name, "notify lua script of OPEN event\n");
  raise(kRcvOpen, [](lua_State*) { return 0; });
  return 0;
}

int GenericNet::closeGeneric() {
  static constexpr ScriptEvent kRcvClose = {
      "ROVIK_RCVCLOSE",
      "lua ROVIK_RCVCLOSE did not return expected timer info, using default timer\n"};
  if (fd < 0 || closing) return 0;
  if (lua_state != nullptr) {
    const During running(closing);
    Drovane::global.log(LOG_LEVEL_DEBUG, id, name, "notify lua script of CLOSE event\n");
    raise(kRcvClose, [](lua_State*) { return 0; });
  }
  ::close(fd);
  emptyInbuf();
  fd = -1;
  ++link_epoch;
  if (commode == COM_TCP) return closeTCP();
  report("could not close\n");
  return -1;
}

// The descriptor is closed already.
int GenericNet::closeTCP() { return 0; }

void GenericNet::emptyInbuf() {
  inbufpos = 0;
  std::memset(inbuf, 0, sizeof inbuf);
}

int GenericNet::abandonLink() {
  ::close(fd);
  fd = -1;
  return -1;
}

int GenericNet::openTCP() {
  Drovane::global.log(LOG_LEVEL_DEBUG, id, name, "opening TCP socket\n");
  fd = linkSocket(SOCK_STREAM);
  if (fd < 0) {
    report("allocate socket (errno: %d %s)\n", errno, std::strerror(errno));
    return -1;
  }
  l_addr = anyAddress();
  if (::bind(fd, generic(l_addr), sizeof l_addr) < 0) {
    report("bind (errno: %d %s)\n", errno, std::strerror(errno));
    return abandonLink();
  }
  p_addr = anyAddress();
  if (inet_aton(host, &p_addr.sin_addr) == 0) {
    report("invalid ip address (errno: %d %s)\n", errno, std::strerror(errno));
    return abandonLink();
  }
  p_addr.sin_port = htons(static_cast<std::uint16_t>(port));
  return connectPeer() ? 0 : abandonLink();
}

// Connects without blocking for longer than a second. False after the reason was reported; the
// descriptor is then still open.
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

// The "test" command's five bytes. 0, or -1 after the failure was reported and the link closed.
int GenericNet::sendTest() {
  static constexpr std::string_view kText = "TEST\n";
  if (commode != COM_TCP) return 0;
  if (::send(fd, kText.data(), kText.size(), MSG_NOSIGNAL) >= 0) return 0;
  report("send (errno: %d %s)\n", errno, std::strerror(errno));
  closeGeneric();
  return -1;
}
