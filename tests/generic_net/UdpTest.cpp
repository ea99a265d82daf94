// The link over UDP: how it opens and closes, and what a failure reports.
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <optional>
#include <system_error>

#include "CallFaults.h"
#include "UdpNet.h"
#include "support/DescriptorLimits.h"
#include "support/OtherHost.h"

namespace {

using testing::MatchesRegex;

const Lines kOpening = {traceLine("opening UDP socket"), traceLine("setting UDP broadcast option")};

class Udp : public UdpNet {
 protected:
  // Opening fails after these lines with this report, and the link is closed as before.
  void expectFailure(Lines lines, const std::string& report) {
    EXPECT_EQ("ERROR", net->command({"open"}));
    EXPECT_EQ(-1, net->fd);
    lines.push_back(errorLine(report));
    lines.push_back(errorLine("open failed"));
    EXPECT_EQ(lines, newLines());
    EXPECT_EQ("open failed", warning());
  }

  int option(int which) const {
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(0, getsockopt(net->fd, SOL_SOCKET, which, &value, &length));
    return value;
  }
};

TEST_F(Udp, OpenTracesItsStepsAndReportsNothing) {
  pointAt("127.0.0.1", 1024);
  EXPECT_EQ("OK", net->command({"open"}));
  EXPECT_GE(net->fd, 0);
  EXPECT_EQ(kOpening, newLines());
  EXPECT_EQ(0U, warnings());
}

TEST_F(Udp, SocketMayBroadcastAndSharesItsAddressWithNobody) {
  openTo("127.0.0.1", 1024);
  EXPECT_EQ(SOCK_DGRAM, option(SO_TYPE));
  EXPECT_EQ(1, option(SO_BROADCAST));
  EXPECT_EQ(0, option(SO_REUSEADDR));
  EXPECT_EQ(0, option(SO_REUSEPORT));
}

TEST_F(Udp, SocketIsConnectedToNobody) {
  openTo("127.0.0.1", 1024);
  sockaddr_in peer{};
  socklen_t length = sizeof peer;
  EXPECT_EQ(-1, getpeername(net->fd, reinterpret_cast<sockaddr*>(&peer), &length));
  EXPECT_EQ(ENOTCONN, errno);
}

TEST_F(Udp, SocketIsNotInherited) {
  openTo("127.0.0.1", 1024);
  EXPECT_EQ(FD_CLOEXEC, fcntl(net->fd, F_GETFD));
}

TEST_F(Udp, OpenRemembersBothAddresses) {
  const int port = freeUdpPort();
  openTo("192.0.2.7", port);
  EXPECT_EQ(AF_INET, net->p_addr.sin_family);
  EXPECT_EQ(htonl(0xC0000207), net->p_addr.sin_addr.s_addr);
  EXPECT_EQ(port, ntohs(net->p_addr.sin_port));
  EXPECT_THAT(net->p_addr.sin_zero, testing::Each(0));
  EXPECT_EQ(AF_INET, net->l_addr.sin_family);
  EXPECT_EQ(htonl(INADDR_ANY), net->l_addr.sin_addr.s_addr);
  EXPECT_EQ(port, ntohs(net->l_addr.sin_port));
  EXPECT_THAT(net->l_addr.sin_zero, testing::Each(0));
}

TEST_F(Udp, PortUpTo1024IsThePeersOnly) {
  for (const int port : {-1, 0, 1, 1023, 1024}) {
    openTo("127.0.0.1", port);
    EXPECT_EQ(0, net->l_addr.sin_port) << port;
    EXPECT_GT(localPort(), 1024) << port;
    EXPECT_EQ(port & 0xFFFF, ntohs(net->p_addr.sin_port));
    net->command({"close"});
  }
}

// In a network of its own, where that is permitted, nobody else has the port.
TEST_F(Udp, PortAbove1024IsThisEndsToo) {
  std::optional<OwnNetwork> network;
  if (OwnNetwork::refusal().empty()) network.emplace();
  try {
    const UdpPeer probe("0.0.0.0", 1025);
  } catch (const std::system_error& error) {
    GTEST_SKIP() << "port 1025 of this machine: " << error.what();
  }
  openTo("127.0.0.1", 1025);
  EXPECT_EQ(1025, localPort());
  EXPECT_EQ(1025, ntohs(net->p_addr.sin_port));
}

TEST_F(Udp, PortBeyond16BitsIsCut) {
  const int port = freeUdpPort();
  openTo("127.0.0.1", 65536 + port);
  EXPECT_EQ(port, localPort());
  EXPECT_EQ(port, ntohs(net->p_addr.sin_port));
}

TEST_F(Udp, TwoRoviksMayHaveOnePeerUpTo1024) {
  const auto second = ExposedNet::make(6, "second");
  second->command({"mode", "udp"});
  second->command({"host", "127.0.0.1"});
  second->command({"port", "1024"});
  openTo("127.0.0.1", 1024);
  EXPECT_EQ("OK", second->command({"open"}));
  EXPECT_NE(localPort(), localPortOf(second->fd));
  EXPECT_EQ("OK", second->command({"close"}));
}

TEST_F(Udp, OnlyOneRovikHasAPortAbove1024) {
  const int port = freeUdpPort();
  const auto second = ExposedNet::make(6, "second");
  second->command({"mode", "udp"});
  second->command({"host", "127.0.0.1"});
  second->command({"port", std::to_string(port)});
  ASSERT_EQ("OK", second->command({"open"}));
  pointAt("127.0.0.1", port);
  expectFailure(kOpening, "bind (errno: 98 Address already in use)");
  EXPECT_EQ(2U, warnings());
  EXPECT_EQ(port, localPortOf(second->fd));
  EXPECT_EQ("OK", second->command({"close"}));
  EXPECT_EQ("OK", net->command({"open"}));
}

TEST_F(Udp, AddressMayBeWrittenInFewerParts) {
  for (const char* host : {"192.0.519", "0xC0000207", "192.0x207"}) {
    openTo(host, 1024);
    EXPECT_EQ(htonl(0xC0000207), net->p_addr.sin_addr.s_addr) << host;
    net->command({"close"});
  }
}

TEST_F(Udp, NamesAreNotResolved) {
  for (const char* host : {"localhost", "example.org", "", "127.0.0.256", "1.2.3.4.5", "::1"}) {
    pointAt(host, 1024);
    EXPECT_EQ("ERROR", net->command({"open"})) << host;
    EXPECT_EQ(-1, net->fd);
    const Lines lines = newLines();
    ASSERT_EQ(4U, lines.size());
    EXPECT_EQ(kOpening, (Lines{lines[0], lines[1]}));
    EXPECT_EQ(2, lines[2].level);
    EXPECT_THAT(lines[2].text, MatchesRegex("invalid ip address \\(errno: [0-9]+ .+\\)"));
    EXPECT_EQ(errorLine("open failed"), lines[3]);
  }
  EXPECT_EQ("open failed", warning());
  EXPECT_EQ(12U, warnings());
}

TEST_F(Udp, PortIsTakenBeforeTheAddressIsRead) {
  const UdpPeer owner("0.0.0.0");
  pointAt("no address", owner.port());
  expectFailure(kOpening, "bind (errno: 98 Address already in use)");
}

TEST_F(Udp, SocketThatMayNotBroadcast) {
  pointAt("127.0.0.1", 1024);
  const FailingCall fault("setsockopt", ENOPROTOOPT);
  expectFailure(kOpening, "setsockopt (errno: 92 Protocol not available)");
  EXPECT_EQ(2U, warnings());
}

TEST_F(Udp, NoDescriptorLeftFailsTheOpening) {
  pointAt("127.0.0.1", 1024);
  const DescriptorLimit none(3);
  ASSERT_TRUE(none.isSet());
  expectFailure({traceLine("opening UDP socket")},
                "allocate socket (errno: 24 Too many open files)");
  EXPECT_EQ(2U, warnings());
}

TEST_F(Udp, DescriptorThatDoesNotFitIntoReadfdsFailsTheOpening) {
  const int port = freeUdpPort();
  pointAt("127.0.0.1", port);
  const LowDescriptorsTaken taken;
  if (!taken.possible()) GTEST_SKIP() << "the hard limit of descriptors is below FD_SETSIZE";
  const int next = nextDescriptor();
  ASSERT_GE(next, FD_SETSIZE);
  expectFailure({traceLine("opening UDP socket")},
                "allocate socket (errno: 24 Too many open files)");
  EXPECT_EQ(next, nextDescriptor());
}

TEST_F(Udp, FailuresLeakNoDescriptor) {
  const UdpPeer owner("0.0.0.0");
  const int next = nextDescriptor();
  pointAt("127.0.0.1", owner.port());
  EXPECT_EQ("ERROR", net->command({"open"}));
  pointAt("no address", 1024);
  EXPECT_EQ("ERROR", net->command({"open"}));
  const FailingCall fault("setsockopt", ENOPROTOOPT);
  EXPECT_EQ("ERROR", net->command({"open"}));
  EXPECT_TRUE(fault.happened());
  EXPECT_EQ(next, nextDescriptor());
}

TEST_F(Udp, FailedOpenMayBeTriedAgain) {
  const int port = freeUdpPort();
  std::optional<UdpPeer> owner(std::in_place, "0.0.0.0", port);
  pointAt("127.0.0.1", port);
  EXPECT_EQ("ERROR", net->command({"open"}));
  owner.reset();
  EXPECT_EQ("OK", net->command({"open"}));
  EXPECT_EQ(port, localPort());
}

TEST_F(Udp, CloseGivesThePortBackWithoutAWord) {
  const int port = freeUdpPort();
  openTo("127.0.0.1", port);
  const int link = net->fd;
  EXPECT_EQ("OK", net->command({"close"}));
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(-1, fcntl(link, F_GETFD));
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_NO_THROW(UdpPeer("0.0.0.0", port));
}

TEST_F(Udp, TransportsOwnCloseDoesNothing) {
  openTo("127.0.0.1", 1024);
  EXPECT_EQ(0, net->closeUDP());
  EXPECT_GT(localPort(), 0);
  EXPECT_EQ(Lines{}, newLines());
}

TEST_F(Udp, DatagramsThatWaitAreLostWithTheLink) {
  const UdpPeer peer = UdpPeer::foreign(0);
  const int port = freeUdpPort();
  openTo(peer.address(), port);
  deliver(peer, "old");
  net->command({"close"});
  openTo(peer.address(), port);
  EXPECT_EQ(0, net->bytesWaiting());
}

constexpr char kCountingScript[] = R"(
  opened, closed = 0, 0
  function ROVIK_RCVOPEN() opened = opened + 1 return 5000000 end
  function ROVIK_RCVCLOSE() closed = closed + 1 return 5000000 end
  function seen() return opened .. ' opened, ' .. closed .. ' closed' end
)";

TEST_F(Udp, ScriptHearsOfOpenAndClose) {
  script(kCountingScript);
  pointAt("127.0.0.1", 1024);
  EXPECT_EQ("OK", net->command({"open"}));
  Lines lines = kOpening;
  lines.push_back(traceLine("notify lua script of OPEN event"));
  EXPECT_EQ(lines, newLines());
  EXPECT_EQ("1 opened, 0 closed", net->command({"seen"}));
  newLines();
  EXPECT_EQ("OK", net->command({"close"}));
  EXPECT_EQ(Lines{traceLine("notify lua script of CLOSE event")}, newLines());
  EXPECT_EQ("1 opened, 1 closed", net->command({"seen"}));
}

TEST_F(Udp, ScriptDoesNotHearOfAFailedOpen) {
  script(kCountingScript);
  pointAt("no address", 1024);
  EXPECT_EQ("ERROR", net->command({"open"}));
  EXPECT_EQ("0 opened, 0 closed", net->command({"seen"}));
}

}  // namespace
