// The link over UDP in a network of the test's own, mostly with a second host in it.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <memory>
#include <optional>

#include "Drovane.h"
#include "UdpNet.h"
#include "framework/RovikHost.h"
#include "support/Eventually.h"
#include "support/Inbox.h"
#include "support/OtherHost.h"
#include "support/TestRovik.h"

namespace {

using drovane::RovikHost;
using Values = std::vector<std::string>;

// A machine without any network but its own loopback.
class LonelyUdp : public UdpNet {
 protected:
  void SetUp() override {
    const std::string refusal = OwnNetwork::refusal();
    if (!refusal.empty()) GTEST_SKIP() << refusal;
    network.emplace();
  }

  // Writing from a kept link fails, is reported and closes.
  void expectNoWayTo(const std::string& address) {
    openTo(address, 1024);
    net->persistent = true;
    std::string data(100, 'x');
    EXPECT_EQ(-1, net->sndData(data.data(), 1, 100)) << address;
    EXPECT_EQ(Lines{errorLine(kNoWay)}, newLines());
    EXPECT_EQ(-1, net->fd);
    EXPECT_EQ("OK", net->command({"open"}));
    newLines();
    EXPECT_EQ("ERROR", net->command({"test"}));
    EXPECT_EQ(Lines{errorLine(kNoWay)}, newLines());
    EXPECT_EQ(kNoWay, warning());
    EXPECT_EQ(-1, net->fd);
  }

  static constexpr char kNoWay[] = "sendto (errno: 101 Network is unreachable)";

 private:
  std::optional<OwnNetwork> network;
};

TEST_F(LonelyUdp, AddressWithoutARouteIsReported) { expectNoWayTo("192.0.2.9"); }

TEST_F(LonelyUdp, LimitedBroadcastWithoutARouteIsReported) { expectNoWayTo("255.255.255.255"); }

class UdpHosts : public UdpNet {
 protected:
  void SetUp() override {
    const std::string refusal = OwnNetwork::refusal();
    if (!refusal.empty()) GTEST_SKIP() << refusal;
    other.emplace();
  }

  // What the rovik makes of a datagram that was sent to it: handed over or dropped.
  void expectForeign(const UdpPeer& from) {
    Inbox inbox;
    feed(from, "x", OtherHost::kAddressHere);
    EXPECT_EQ(messageLine(from.address(), from.port(), 1), newLines().at(0));
    EXPECT_EQ(Values{"x"}, inbox.takeValues());
  }
  void expectOwn(const UdpPeer& from) {
    feed(from, "x", OtherHost::kAddressHere);
    EXPECT_EQ((Lines{messageLine(from.address(), from.port(), 1), ownMessageLine()}), newLines());
  }

  // One word to the configured peer.
  void say(const std::string& word) {
    std::string data = word;
    data.resize(4096);
    net->persistent = true;
    ASSERT_EQ(0, net->sndData(data.data(), static_cast<int>(word.size()), 4096));
  }

  std::optional<OtherHost> other;
};

TEST_F(UdpHosts, OtherHostIsHeard) {
  openTo(OtherHost::kAddress, 1024);
  const UdpPeer peer = other->udpPeer();
  Inbox inbox;
  feed(peer, "hello", OtherHost::kAddressHere);
  EXPECT_EQ((Lines{messageLine(OtherHost::kAddress, peer.port(), 5),
                   traceLine("Rovik Message: MM_DATA 5_0_0 = {hello}")}),
            newLines());
  EXPECT_EQ(Values{"hello"}, inbox.takeValues());
}

TEST_F(UdpHosts, BothEndsHaveAPortAbove1024) {
  const int port = freeUdpPort();
  const UdpPeer peer = other->udpPeer(port);
  openTo(OtherHost::kAddress, port);
  say("ON");
  EXPECT_EQ((Datagram{"ON", OtherHost::kAddressHere, port}), peer.receive());
}

TEST_F(UdpHosts, OnlyThisEndsPortDiffersUpTo1024) {
  const UdpPeer peer = other->udpPeer(1024);
  openTo(OtherHost::kAddress, 1024);
  say("ON");
  EXPECT_EQ((Datagram{"ON", OtherHost::kAddressHere, localPort()}), peer.receive());
  EXPECT_NE(1024, localPort());
}

TEST_F(UdpHosts, BroadcastToTheSubnetReachesTheOtherHost) {
  const UdpPeer peer = other->udpPeer(1024);
  openTo(OtherHost::kBroadcast, 1024);
  say("all");
  EXPECT_EQ("all", peer.receive().bytes);
}

TEST_F(UdpHosts, LimitedBroadcastReachesTheOtherHost) {
  OwnNetwork::ip({"route", "add", "default", "dev", "near"});
  const UdpPeer peer = other->udpPeer(1024);
  openTo("255.255.255.255", 1024);
  say("all");
  EXPECT_EQ("all", peer.receive().bytes);
}

TEST_F(UdpHosts, TestMayBroadcast) {
  const UdpPeer peer = other->udpPeer(1024);
  openTo(OtherHost::kBroadcast, 1024);
  EXPECT_EQ("OK", net->command({"test"}));
  EXPECT_EQ("TEST\n", peer.receive().bytes);
}

// On a port above 1024 the rovik hears its own broadcasts.
TEST_F(UdpHosts, OwnBroadcastComesBackAndIsDropped) {
  const int port = freeUdpPort();
  openTo(OtherHost::kBroadcast, port);
  say("all");
  awaitDatagram();
  net->readLinkNow();
  EXPECT_EQ((Lines{messageLine(OtherHost::kAddressHere, port, 3), ownMessageLine()}), newLines());
}

TEST_F(UdpHosts, BroadcastOfTheOtherHostIsHeardOnAPortAbove1024) {
  other->run([] { OwnNetwork::ip({"route", "add", "default", "dev", "far"}); });
  const UdpPeer peer = other->udpPeer();
  openTo(OtherHost::kAddress, freeUdpPort());
  for (const char* address : {OtherHost::kBroadcast, "255.255.255.255"}) {
    Inbox inbox;
    feed(peer, "all", address);
    EXPECT_EQ(messageLine(OtherHost::kAddress, peer.port(), 3), newLines().at(0)) << address;
    EXPECT_EQ(Values{"all"}, inbox.takeValues());
  }
}

TEST_F(UdpHosts, BroadcastToThePeersPortIsNotHeardUpTo1024) {
  const UdpPeer peer = other->udpPeer();
  openTo(OtherHost::kAddress, 1024);
  Inbox inbox;
  peer.send("to port 1024", OtherHost::kBroadcast, 1024);
  feed(peer, "to the rovik", OtherHost::kAddressHere);
  EXPECT_EQ(Values{"to the rovik"}, inbox.takeValues());
  EXPECT_EQ(0, net->bytesWaiting());
}

TEST_F(UdpHosts, EveryAddressOfThisHostIsFiltered) {
  const char* const kMore[] = {"192.0.2.3/24", "198.51.100.1/24", "203.0.113.5/32"};
  for (const char* more : kMore) OwnNetwork::ip({"address", "add", more, "dev", "near"});
  openTo(OtherHost::kAddress, 1024);
  for (const char* address :
       {"127.0.0.1", OtherHost::kAddressHere, "192.0.2.3", "198.51.100.1", "203.0.113.5"})
    expectOwn(UdpPeer(address));
}

TEST_F(UdpHosts, AddressOfAnInterfaceThatIsDownIsFilteredToo) {
  OwnNetwork::ip({"link", "add", "idle", "type", "veth", "peer", "name", "idle_peer"});
  OwnNetwork::ip({"address", "add", "198.51.100.1/24", "dev", "idle"});
  openTo(OtherHost::kAddress, 1024);
  expectOwn(UdpPeer("198.51.100.1"));
}

// The interfaces are listed anew for each datagram.
TEST_F(UdpHosts, AddressCountsFromWhenItComesUntilItGoes) {
  openTo(OtherHost::kAddress, 1024);
  const UdpPeer peer("127.0.0.2");
  expectForeign(peer);
  OwnNetwork::ip({"address", "add", "127.0.0.2/8", "dev", "lo"});
  expectOwn(peer);
  OwnNetwork::ip({"address", "del", "127.0.0.2/8", "dev", "lo"});
  expectForeign(peer);
}

// Its entry in the list of interfaces comes before those of all addresses and is empty.
TEST_F(UdpHosts, InterfaceWithoutAnAddressIsPassedOver) {
  if (access("/dev/net/tun", R_OK | W_OK) != 0) GTEST_SKIP() << "no /dev/net/tun to open";
  OwnNetwork::ip({"tuntap", "add", "bare", "mode", "tun"});
  openTo(OtherHost::kAddress, 1024);
  expectOwn(UdpPeer("127.0.0.1"));
  expectForeign(UdpPeer("127.0.0.2"));
}

// A rovik on its own thread, and a peer on the other host that floods it.
class UdpFlood : public UdpHosts {
 protected:
  static constexpr int kDatagrams = 20000;
  static constexpr std::size_t kRoom = std::size_t{32} << 20;

  void SetUp() override {
    UdpHosts::SetUp();
    if (!other) return;
    // What is logged is kept, and would be the memory that grows.
    Drovane::global.setLogLevel(LOG_LEVEL_INFO);
    port = freeUdpPort();
    openTo(OtherHost::kAddress, port);
    ASSERT_EQ(0, host().start());
  }
  ~UdpFlood() override { net->stop(); }

  RovikHost& host() { return RovikHost::of(*net); }

  // Bytes of memory that this process has in use.
  static std::size_t residentBytes() {
    std::ifstream file("/proc/self/statm");
    std::size_t total = 0;
    std::size_t resident = 0;
    file >> total >> resident;
    EXPECT_TRUE(file.good());
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  }

  void flood(const UdpPeer& peer, const std::string& datagram) const {
    for (int i = 0; i < kDatagrams; ++i) peer.send(datagram, OtherHost::kAddressHere, port);
  }

  // The same, but waits for the rovik as long as it reads, so that the kernel drops nothing that it
  // would have read.
  void floodInStep(const UdpPeer& peer, const std::string& datagram) {
    constexpr int kStep = 32;
    const auto settled = [this] { return net->bytesWaiting() == 0 || host().status().held_back; };
    for (int i = 0; i < kDatagrams; ++i) {
      peer.send(datagram, OtherHost::kAddressHere, port);
      if (i % kStep != 0) continue;
      ASSERT_TRUE(eventually(settled));
    }
  }

  void expectStopInTime() {
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(0, net->stop());
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(5));
  }

  int port = 0;
};

TEST_F(UdpFlood, IsReadThroughInBoundedMemory) {
  Inbox inbox;
  net->unparsedout = false;
  const UdpPeer peer = other->udpPeer();
  const auto say = [this](Words words) { return host().command(std::move(words)).text; };
  ASSERT_EQ("OK", say({"reg", "on"}));
  ASSERT_EQ("OK", say({"regin", "1_1_1", "^the end$", "found"}));
  const std::size_t before = residentBytes();
  flood(peer, std::string(1000, 'x'));
  EXPECT_TRUE(eventually([&] {
    peer.send("the end", OtherHost::kAddressHere, port);
    return !inbox.take().empty();
  }));
  EXPECT_LT(residentBytes(), before + kRoom);
  expectStopInTime();
  EXPECT_EQ(0U, warnings());
}

// Without a limit the receiver's queue alone would hold more than twice the room.
TEST_F(UdpFlood, IsHeldBackByAReceiverThatDoesNotKeepUp) {
  Gate gate;
  const auto listener = TestRovik::make(91, "listener");
  listener->on_message = [&](RovikMessage*) { gate.pass(); };
  listener->run();
  const UdpPeer peer = other->udpPeer();
  const std::size_t before = residentBytes();
  floodInStep(peer, std::string(4096, 'x'));
  ASSERT_TRUE(gate.waitForVisitor());
  EXPECT_TRUE(eventually([&] {
    peer.send("more", OtherHost::kAddressHere, port);
    return host().status().held_back;
  }));
  EXPECT_LT(residentBytes(), before + kRoom);
  expectStopInTime();
  EXPECT_EQ(0U, listener->host().status().dropped);
  gate.open();
  listener->stop();
}

TEST_F(UdpFlood, DoesNotKeepTheRovikFromStopping) {
  const UdpPeer peer = other->udpPeer();
  std::atomic<bool> enough{false};
  auto flooding = std::async(std::launch::async, [&] {
    do flood(peer, std::string(64, 'x'));
    while (!enough);
  });
  expectStopInTime();
  enough = true;
  flooding.get();
  EXPECT_EQ("OK", net->command({"close"}));
}

}  // namespace
