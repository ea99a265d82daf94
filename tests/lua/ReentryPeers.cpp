#include <poll.h>
#include <sys/ioctl.h>

#include <atomic>
#include <chrono>
#include <exception>
#include <mutex>
#include <thread>

#include "ReentryTest.h"
#include "support/Eventually.h"
#include "support/PeerTls.h"
#include "support/PeerUdp.h"

namespace {

using Settings = std::vector<std::vector<std::string>>;

int waitingOn(const ScriptRovik& net) {
  int count = 0;
  return ioctl(net.fd, FIONREAD, &count) == 0 ? count : -1;
}

// As long as there is a link with something to read; a few reads for what one could not take.
void readAll(ScriptRovik& net) {
  for (int i = 0; i < 10 && net.fd >= 0 && waitingOn(net) > 0; ++i) net.readLinkNow();
}

Settings streamTo(const char* mode, int port) {
  return {{"mode", mode}, {"host", "127.0.0.1"}, {"port", std::to_string(port)}};
}

// All units in one read, each with an end of line.
class Tcp : public ReentryPeer {
 public:
  Settings settings() const override { return streamTo("tcp", peer.port()); }

  void send(ScriptRovik& net, const std::vector<std::string>& units) override {
    meet();
    std::string bytes;
    for (const auto& unit : units) bytes += unit + "\n";
    peer.send(bytes);
    ASSERT_TRUE(eventually([&] { return waitingOn(net) == static_cast<int>(bytes.size()); }));
    readAll(net);
  }

  void leave(ScriptRovik& net) override {
    meet();
    peer.close();
    net.readLinkNow();
  }

 private:
  // Takes the newest link.
  void meet() {
    while (peer.linkWaits()) peer.accept();
  }

  TcpPeer peer;
};

// Each unit in a record of its own, with an end of line. Shakes hands with whoever comes, on a
// thread of its own, since an opening waits for that.
class Tls : public ReentryPeer {
 public:
  Tls() : doorman([this] { work(); }) {}
  ~Tls() override {
    over = true;
    doorman.join();
  }

  Settings settings() const override {
    Settings all = streamTo("ssl", peer.port());
    all.push_back({"accept_self_cert", "on"});
    return all;
  }

  void send(ScriptRovik& net, const std::vector<std::string>& units) override {
    std::string records;
    {
      const std::lock_guard guard(lock);
      for (const auto& unit : units) records += peer.seal(unit + "\n");
      peer.link().send(records);
    }
    ASSERT_TRUE(eventually([&] { return waitingOn(net) == static_cast<int>(records.size()); }));
    readAll(net);
  }

  void leave(ScriptRovik& net) override {
    {
      const std::lock_guard guard(lock);
      peer.sendCloseNotify();
      peer.link().close();
    }
    ASSERT_TRUE(eventually([&] { return net.readLinkNow(), net.fd < 0; }));
  }

 private:
  void work() {
    while (!over) {
      {
        const std::lock_guard guard(lock);
        try {
          if (peer.link().linkWaits()) peer.accept();
        } catch (const std::exception&) {
          // The other side has gone in the meantime.
        }
      }
      poll(nullptr, 0, 1);
    }
  }

  TlsPeer peer{selfSigned()};
  std::mutex lock;
  std::atomic<bool> over{false};
  std::thread doorman;
};

// Each unit a datagram; an empty one as the farewell.
class Udp : public ReentryPeer {
 public:
  Settings settings() const override {
    return {{"mode", "udp"}, {"host", peer.address()}, {"port", std::to_string(peer.port())}};
  }

  void send(ScriptRovik& net, const std::vector<std::string>& units) override {
    for (const auto& unit : units) peer.send(unit, "127.0.0.1", localPortOf(net.fd));
    pollfd watched{net.fd, POLLIN, 0};
    ASSERT_TRUE(eventually([&] { return poll(&watched, 1, 0) == 1; }));
    const int link = net.fd;
    for (std::size_t i = 0; i < units.size() && net.fd == link; ++i) net.readLinkNow();
  }

  void leave(ScriptRovik& net) override { send(net, {""}); }

 private:
  // Up to this port the link has a port of its own choice here.
  const UdpPeer peer = UdpPeer::foreign(1024);
};

}  // namespace

std::unique_ptr<ReentryPeer> tcpReentryPeer() { return std::make_unique<Tcp>(); }
std::unique_ptr<ReentryPeer> tlsReentryPeer() { return std::make_unique<Tls>(); }
std::unique_ptr<ReentryPeer> udpReentryPeer() { return std::make_unique<Udp>(); }
