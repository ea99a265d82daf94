#include "ControlListener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace drovane {
namespace {

constexpr mode_t kOwnerOnly = 0600;

[[noreturn]] void fail(const std::string& path, const std::string& problem) {
  throw ControlSocketError("control socket '" + path + "' " + problem);
}

[[noreturn]] void failWith(const std::string& path, const char* call, int error) {
  fail(path, std::string("cannot be made: ") + call + ": " + std::strerror(error));
}

sockaddr_un address(const std::string& path) {
  sockaddr_un target{};
  target.sun_family = AF_UNIX;
  const std::size_t room = sizeof target.sun_path - 1;
  if (path.empty() || path.size() > room) {
    fail(path, "cannot be made: its path has " + std::to_string(path.size()) +
                   " bytes; expected 1 to " + std::to_string(room));
  }
  std::memcpy(target.sun_path, path.data(), path.size());
  return target;
}

Descriptor unixSocket(const std::string& path) {
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) failWith(path, "socket", errno);
  return socket;
}

}  // namespace

ControlListener::ControlListener(std::string its_path) : path(std::move(its_path)) {
  address(path);
  removeStale();
  bindAndListen();
}

ControlListener::~ControlListener() {
  struct stat facts {};
  if (::lstat(path.c_str(), &facts) != 0) return;
  if (facts.st_dev == device && facts.st_ino == inode) ::unlink(path.c_str());
}

// A socket that nobody listens on refuses connections: its process is dead.
void ControlListener::removeStale() const {
  struct stat facts {};
  if (::lstat(path.c_str(), &facts) != 0) {
    if (errno == ENOENT) return;
    failWith(path, "lstat", errno);
  }
  if (!S_ISSOCK(facts.st_mode))
    fail(path, "is a file that is no socket; expected a free path, or another one with --control");
  const Descriptor probe = unixSocket(path);
  const sockaddr_un target = address(path);
  const int error =
      ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&target), sizeof target) == 0
          ? 0
          : errno;
  // A full queue (EAGAIN) is somebody's too.
  if (error == 0 || error == EAGAIN)
    fail(path,
         "is in use by a running drovane; expected a free path, or another one with --control");
  if (error != ECONNREFUSED) failWith(path, "connect", error);
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) failWith(path, "unlink", errno);
}

void ControlListener::bindAndListen() {
  Descriptor socket = moveAboveLinks(unixSocket(path));
  const sockaddr_un target = address(path);
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0)
    failWith(path, "bind", errno);
  // Until listen nobody can connect, so there is no moment with a wider mode.
  if (::chmod(path.c_str(), kOwnerOnly) != 0) failWith(path, "chmod", errno);
  struct stat facts {};
  if (::lstat(path.c_str(), &facts) != 0) failWith(path, "lstat", errno);
  device = facts.st_dev;
  inode = facts.st_ino;
  if (::listen(socket.get(), SOMAXCONN) != 0) failWith(path, "listen", errno);
  listening = std::move(socket);
}

Descriptor ControlListener::accept() const {
  return moveAboveLinks(
      Descriptor(::accept4(listening.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)));
}

bool ControlListener::allowed(int connection) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
  return peer.uid == ::geteuid() || peer.uid == 0;
}

}  // namespace drovane
