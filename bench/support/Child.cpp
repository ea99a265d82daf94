#include "support/Child.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <iostream>
#include <system_error>

namespace bench {
namespace {

[[noreturn]] void runChild(const std::function<void(int)>& body, int channel) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  int status = 0;
  try {
    body(channel);
  } catch (const std::exception& error) {
    std::cerr << "child of the benchmark: " << error.what() << '\n';
    status = 1;
  }
  // What the parent registered to be done at its exit is not the child's to do.
  _exit(status);
}

}  // namespace

Child::Child(const std::function<void(int)>& body) {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0)
    throw std::system_error(errno, std::generic_category(), "socketpair");
  channel.reset(ends[0]);
  drovane::Descriptor far(ends[1]);
  pid = fork();
  if (pid < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (pid > 0) return;
  channel.reset();
  runChild(body, far.get());
}

Child::~Child() {
  channel.reset();
  waitpid(pid, nullptr, 0);
}

}  // namespace bench
