#include "Notify.h"

#include <sys/time.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "Drovane.h"
#include "Systemd.h"
#include "framework/Clock.h"
#include "framework/Log.h"

namespace drovane {
namespace {

constexpr timeval kLongestSend{0, 500'000};
constexpr std::int64_t kNanosecondsPerMicrosecond = 1000;
// Microseconds; told several times before they are over.
constexpr const char* kLongerStart = "EXTEND_TIMEOUT_USEC=60000000";

void complain(const char* what, const char* detail) {
  Drovane::global.log(LOG_LEVEL_ERROR, kFrameworkId, kFrameworkName, "%s: %s\n", what, detail);
}

}  // namespace

Notify::Notify() {
  findManager();
  if (socket) findPause();
}

// A name that begins with '@' stands for one in the abstract space, which begins with a zero byte.
void Notify::findManager() {
  const char* const name = std::getenv("NOTIFY_SOCKET");
  if (name == nullptr || *name == '\0') return;
  const std::string_view path(name);
  if ((path[0] != '/' && path[0] != '@') || path.size() >= sizeof address.sun_path)
    return complain("NOTIFY_SOCKET cannot be used; expected the path of a socket", name);
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, path.size());
  if (path[0] == '@') address.sun_path[0] = '\0';
  address_length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  socket = moveAboveLinks(Descriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
  if (!socket) throw std::system_error(errno, std::generic_category(), "notify socket");
  if (::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &kLongestSend, sizeof kLongestSend) != 0)
    throw std::system_error(errno, std::generic_category(), "notify socket");
}

void Notify::findPause() try {
  if (std::getenv("WATCHDOG_USEC") == nullptr) return;  // nobody wants signs of life
  std::uint64_t microseconds = 0;
  const int found = Systemd::library().watchdogEnabled(0, &microseconds);
  if (found < 0)
    complain("WATCHDOG_USEC or WATCHDOG_PID cannot be used", std::strerror(-found));
  else if (found > 0)
    sign_pause = static_cast<std::int64_t>(microseconds) * kNanosecondsPerMicrosecond / 2;
} catch (const std::runtime_error& error) {
  complain("no signs of life for the service manager", error.what());
}

void Notify::starting() { tell(kLongerStart); }

void Notify::ready(std::string_view text) { tell("READY=1\nSTATUS=", text); }

void Notify::reloading() {
  std::array<char, 24> now{};
  const auto end = std::to_chars(now.begin(), now.end(), Clock::now() / kNanosecondsPerMicrosecond);
  tell("RELOADING=1\nSTATUS=reloading\nMONOTONIC_USEC=",
       {now.data(), static_cast<std::size_t>(end.ptr - now.data())});
}

void Notify::stopping() { tell("STOPPING=1\nSTATUS=stopping"); }

void Notify::status(std::string_view text) { tell("STATUS=", text); }

void Notify::alive() { tell("WATCHDOG=1"); }

void Notify::tell(std::string_view state, std::string_view rest) {
  if (!socket) return;
  // Nobody writes to what is sent.
  std::array<iovec, 2> parts = {{{const_cast<char*>(state.data()), state.size()},
                                 {const_cast<char*>(rest.data()), rest.size()}}};
  msghdr datagram{};
  datagram.msg_name = &address;
  datagram.msg_namelen = address_length;
  datagram.msg_iov = parts.data();
  datagram.msg_iovlen = parts.size();
  const int error = ::sendmsg(socket.get(), &datagram, MSG_NOSIGNAL) < 0 ? errno : 0;
  if (failure.exchange(error) == 0 && error != 0)
    complain("the service manager cannot be told anything", std::strerror(error));
}

}  // namespace drovane
