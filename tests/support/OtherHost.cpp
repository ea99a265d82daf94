#include "support/OtherHost.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "support/Eventually.h"
#include "support/Process.h"

using drovane::Descriptor;

namespace {

int checked(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

Descriptor currentNetwork() {
  return Descriptor(checked(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC), "ns/net"));
}

void enter(const Descriptor& network) { checked(::setns(network.get(), CLONE_NEWNET), "setns"); }

// Where a thread cannot go back to its network, every later test would run in the wrong one.
void goBack(const Descriptor& network) {
  if (::setns(network.get(), CLONE_NEWNET) == 0) return;
  std::perror("no way back to the network before");
  std::abort();
}

class Inside {
 public:
  Inside(const Descriptor& network, const Descriptor& its_before) : before(its_before) {
    enter(network);
  }
  ~Inside() { goBack(before); }
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;

 private:
  const Descriptor& before;
};

// A name for a network that other processes can use as well.
std::string pathOf(const Descriptor& network) {
  return "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(network.get());
}

// Whether the kernel sends over the interface: it begins a moment after both ends are up.
bool runs(const char* interface) {
  const Descriptor socket(checked(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket"));
  ifreq request{};
  std::strncpy(request.ifr_name, interface, IFNAMSIZ - 1);
  checked(::ioctl(socket.get(), SIOCGIFFLAGS, &request), "SIOCGIFFLAGS");
  return (request.ifr_flags & IFF_RUNNING) != 0;
}

void awaitLink(const char* interface) {
  if (!eventually([&] { return runs(interface); }))
    throw std::runtime_error(std::string("the link does not come up: ") + interface);
}

void raise(const std::string& interface, const std::string& address) {
  OwnNetwork::ip({"address", "add", address + "/24", "broadcast", "+", "dev", interface});
  OwnNetwork::ip({"link", "set", interface, "up"});
}

}  // namespace

std::string OwnNetwork::refusal() {
  int error = 0;
  std::thread([&] { error = ::unshare(CLONE_NEWNET) == 0 ? 0 : errno; }).join();
  if (error == 0) return "";
  return std::string("a network of its own is not permitted: ") + std::strerror(error);
}

OwnNetwork::OwnNetwork() : before(currentNetwork()) {
  checked(::unshare(CLONE_NEWNET), "unshare");
  try {
    ip({"link", "set", "lo", "up"});
  } catch (...) {
    goBack(before);
    throw;
  }
}

OwnNetwork::~OwnNetwork() { goBack(before); }

void OwnNetwork::ip(const std::vector<std::string>& words) {
  std::vector<std::string> arguments{"ip"};
  arguments.insert(arguments.end(), words.begin(), words.end());
  const Finished finished = runToEnd(arguments);
  if (finished.status == 0) return;
  std::string line;
  for (const std::string& word : arguments) line += word + ' ';
  throw std::runtime_error(line + "fails: " + finished.errors);
}

OtherHost::OtherHost() : network_here(currentNetwork()) {
  {
    const OwnNetwork there;
    network_there = currentNetwork();
  }
  OwnNetwork::ip({"link", "add", "near", "type", "veth", "peer", "name", "far"});
  OwnNetwork::ip({"link", "set", "far", "netns", pathOf(network_there)});
  raise("near", kAddressHere);
  run([] {
    raise("far", kAddress);
    awaitLink("far");
  });
  awaitLink("near");
}

void OtherHost::run(const std::function<void()>& body) const {
  const Inside there(network_there, network_here);
  body();
}

UdpPeer OtherHost::udpPeer(int port) const {
  const Inside there(network_there, network_here);
  return UdpPeer("0.0.0.0", port);
}
