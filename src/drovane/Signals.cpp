#include "Signals.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "Options.h"
#include "framework/Clock.h"

namespace drovane {
namespace {

void leave(int) { ::_exit(kDone); }

}  // namespace

void leaveOnSignals() {
  struct sigaction action {};
  action.sa_handler = leave;
  for (const int signal : {SIGINT, SIGTERM}) ::sigaction(signal, &action, nullptr);
}

namespace {

Signals::Event eventOf(std::uint32_t signal) {
  if (signal == SIGINT) return Signals::Event::Interrupt;
  return signal == SIGHUP ? Signals::Event::HangUp : Signals::Event::Terminate;
}

}  // namespace

Signals::Signals() {
  sigset_t taken;
  sigemptyset(&taken);
  sigaddset(&taken, SIGINT);
  sigaddset(&taken, SIGTERM);
  sigaddset(&taken, SIGHUP);
  const int error = pthread_sigmask(SIG_BLOCK, &taken, nullptr);
  if (error != 0) throw std::system_error(error, std::generic_category(), "pthread_sigmask");
  descriptor = moveAboveLinks(Descriptor(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK)));
  if (!descriptor) throw std::system_error(errno, std::generic_category(), "signalfd");
}

Signals::Event Signals::wait(int done, std::int64_t deadline) const {
  while (true) {
    std::array<pollfd, 2> watched = {{{descriptor.get(), POLLIN, 0}, {done, POLLIN, 0}}};
    const std::int64_t left = std::max<std::int64_t>(deadline - Clock::now(), 0);
    constexpr std::int64_t kLongest = 3'600'000;  // milliseconds; then it looks at the time anew
    const int limit =
        deadline < 0 ? -1 : static_cast<int>(std::min(left / 1'000'000 + 1, kLongest));
    const int ready = ::poll(watched.data(), watched.size(), limit);
    if (ready < 0 && errno != EINTR)
      throw std::system_error(errno, std::generic_category(), "poll");
    signalfd_siginfo info{};
    if (::read(descriptor.get(), &info, sizeof info) == sizeof info) return eventOf(info.ssi_signo);
    if (watched[1].revents != 0) return Event::Done;
    if (deadline >= 0 && Clock::now() >= deadline) return Event::Deadline;
  }
}

}  // namespace drovane
