// Wake-on-LAN: its settings and its packet.
#include <fcntl.h>
#include <sys/select.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <set>

#include "CallFaults.h"
#include "NetTest.h"
#include "support/DescriptorLimits.h"
#include "support/OtherHost.h"
#include "support/PeerUdp.h"

namespace {

using testing::MatchesRegex;

class WakeOnLan : public NetTest {
 protected:
  std::string mac() const {
    return {reinterpret_cast<const char*>(net->wol_mac), sizeof net->wol_mac};
  }
};

TEST_F(WakeOnLan, AddressIsKeptAsItIsWritten) {
  EXPECT_EQ("OK", net->command({"wol", "adr", "192.0.2.255"}));
  EXPECT_STREQ("192.0.2.255", net->wol_adr);
  EXPECT_EQ(Lines{infoLine("WOL BC address set to: 192.0.2.255")}, newLines());
}

TEST_F(WakeOnLan, MacIsReadAsSixHexadecimalBytes) {
  EXPECT_EQ("OK", net->command({"wol", "mac", "00:11:22:aA:Bb:ff"}));
  EXPECT_EQ(std::string("\x00\x11\x22\xaa\xbb\xff", 6), mac());
}

// The line is written before the text is read, and shows the bytes as a text.
TEST_F(WakeOnLan, MacLineShowsTheBytesAsTheyWereBefore) {
  net->command({"wol", "mac", "41:42:43:44:45:46"});
  EXPECT_EQ(Lines{infoLine("WOL MAC address set to: ")}, newLines());
  net->command({"wol", "mac", "61:62:00:64:65:66"});
  EXPECT_EQ(Lines{infoLine("WOL MAC address set to: ABCDEF")}, newLines());
  net->command({"wol", "mac", "1:2:3:4:5:6"});
  EXPECT_EQ(Lines{infoLine("WOL MAC address set to: ab")}, newLines());
  net->command({"wol", "mac", "x"});
  EXPECT_EQ(Lines{infoLine("WOL MAC address set to: \\x01\\x02\\x03\\x04\\x05\\x06")}, newLines());
}

TEST_F(WakeOnLan, MacThatDoesNotFitLeavesTheRestAsItWas) {
  const struct {
    const char* text;
    std::string bytes;
  } kMacs[] = {
      {"", "ABCDEF"},
      {"zz:11", "ABCDEF"},
      {"61", "aBCDEF"},
      {"61:62", "abCDEF"},
      {"61:62:zz:64", "abCDEF"},
      {"61-62-63", "aBCDEF"},
      {"61:62:63:64:65:66:67", "abcdef"},
  };
  for (const auto& row : kMacs) {
    net->command({"wol", "mac", "41:42:43:44:45:46"});
    EXPECT_EQ("OK", net->command({"wol", "mac", row.text})) << row.text;
    EXPECT_EQ(row.bytes, mac()) << row.text;
  }
  EXPECT_EQ(0U, warnings());
}

TEST_F(WakeOnLan, AnythingElseIsAnErrorWithoutAWord) {
  EXPECT_EQ("ERROR", net->command({"wol", "xyz"}));
  EXPECT_EQ("ERROR", net->command({"wol", ""}));
  EXPECT_EQ("ERROR", net->command({"wol", "adr"}));
  EXPECT_EQ("ERROR", net->command({"wol", "mac"}));
  EXPECT_EQ("ERROR", net->command({"wol", "MAC", "00:11:22:33:44:55"}));
  EXPECT_EQ("ERROR", net->command({"wol", "SND"}));
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_EQ(0U, warnings());
  EXPECT_EQ("", net->command({"wol"}));
}

TEST_F(WakeOnLan, NoAddressIsReported) {
  for (const char* address : {"", "a name", "1.2.3.4.5"}) {
    net->command({"wol", "adr", address});
    newLines();
    EXPECT_EQ("ERROR", net->command({"wol", "snd"}));
    const Lines lines = newLines();
    ASSERT_EQ(3U, lines.size());
    EXPECT_EQ(traceLine("opening WOL UDP socket"), lines[0]);
    EXPECT_EQ(traceLine("setting UDP broadcast option"), lines[1]);
    EXPECT_EQ(2, lines[2].level);
    EXPECT_THAT(lines[2].text, MatchesRegex("invalid ip address \\(errno: [0-9]+ .+\\)"));
    EXPECT_EQ(lines[2].text, warning());
  }
}

TEST_F(WakeOnLan, NoDescriptorIsReported) {
  {
    const DescriptorLimit none(3);
    ASSERT_TRUE(none.isSet());
    EXPECT_EQ(-1, net->sendWOL());
  }
  EXPECT_EQ((Lines{traceLine("opening WOL UDP socket"),
                   errorLine("allocate socket (errno: 24 Too many open files)")}),
            newLines());
  EXPECT_EQ("allocate socket (errno: 24 Too many open files)", warning());
}

std::set<int> openDescriptors() {
  std::set<int> numbers;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    numbers.insert(std::stoi(entry.path().filename()));
  // The listing's own is among them.
  std::erase_if(numbers, [](int number) { return fcntl(number, F_GETFD) < 0; });
  return numbers;
}

TEST_F(WakeOnLan, FailureLeavesNoDescriptorOpen) {
  const std::set<int> before = openDescriptors();
  for (int i = 0; i < 3; ++i) EXPECT_EQ("ERROR", net->command({"wol", "snd"}));
  EXPECT_EQ(before, openDescriptors());
}

TEST_F(WakeOnLan, SocketThatMayNotBroadcastIsReported) {
  const int next = nextDescriptor();
  const FailingCall fault("setsockopt", ENOPROTOOPT);
  EXPECT_EQ(-1, net->sendWOL());
  EXPECT_EQ((Lines{traceLine("opening WOL UDP socket"), traceLine("setting UDP broadcast option"),
                   errorLine("setsockopt (errno: 92 Protocol not available)")}),
            newLines());
  EXPECT_EQ("setsockopt (errno: 92 Protocol not available)", warning());
  EXPECT_EQ(1U, warnings());
  EXPECT_EQ(next, nextDescriptor());
}

TEST_F(WakeOnLan, SocketWithoutALocalAddressIsReported) {
  const int next = nextDescriptor();
  const FailingCall fault("bind", EADDRINUSE);
  EXPECT_EQ("ERROR", net->command({"wol", "snd"}));
  EXPECT_EQ((Lines{traceLine("opening WOL UDP socket"), traceLine("setting UDP broadcast option"),
                   errorLine("bind (errno: 98 Address already in use)")}),
            newLines());
  EXPECT_EQ("bind (errno: 98 Address already in use)", warning());
  EXPECT_EQ(1U, warnings());
  EXPECT_EQ(next, nextDescriptor());
}

TEST_F(WakeOnLan, FailureLeavesAnOpenLinkAsItIs) {
  TcpPeer peer;
  openTo(peer);
  const int link = net->fd;
  feed(peer, "half a line");
  EXPECT_EQ("ERROR", net->command({"wol", "snd"}));
  EXPECT_EQ(link, net->fd);
  EXPECT_EQ(11, net->inbufpos);
  feed(peer, "\n");
  EXPECT_EQ(0, net->inbufpos);
}

// In a network where port 9 is free, nothing leaves the machine and the routes are the test's.
class WakeOnLanNetwork : public WakeOnLan {
 protected:
  void SetUp() override {
    const std::string refusal = OwnNetwork::refusal();
    if (!refusal.empty()) GTEST_SKIP() << refusal;
    network.emplace();
  }

  static std::string packetFor(const std::string& mac) {
    std::string packet(6, '\xFF');
    for (int copy = 0; copy < 16; ++copy) packet += mac;
    return packet;
  }

  // Sends a packet; the descriptor that this leaves open, -1 when it is not exactly one.
  int sendAndFind() {
    net->command({"wol", "adr", "127.0.0.1"});
    const std::set<int> before = openDescriptors();
    EXPECT_EQ("OK", net->command({"wol", "snd"}));
    std::set<int> more = openDescriptors();
    std::erase_if(more, [&](int number) { return before.contains(number); });
    return more.size() == 1 ? *more.begin() : -1;
  }

  const Lines sending = {traceLine("opening WOL UDP socket"),
                         traceLine("setting UDP broadcast option"),
                         traceLine("sending WOL UDP broadcast")};

 private:
  std::optional<OwnNetwork> network;
};

TEST_F(WakeOnLanNetwork, PacketGoesToPortNineOfTheAddress) {
  const UdpPeer sleeper("127.0.0.1", 9);
  net->command({"wol", "adr", "127.0.0.1"});
  net->command({"wol", "mac", "00:11:22:33:44:55"});
  newLines();
  EXPECT_EQ("OK", net->command({"wol", "snd"}));
  EXPECT_EQ(sending, newLines());
  const std::string packet = sleeper.receive().bytes;
  EXPECT_EQ(102U, packet.size());
  EXPECT_EQ(packetFor(std::string("\x00\x11\x22\x33\x44\x55", 6)), packet);
  EXPECT_FALSE(sleeper.datagramWaits());
  EXPECT_EQ(0U, warnings());
}

TEST_F(WakeOnLanNetwork, AddressMayBeWrittenInFewerParts) {
  const UdpPeer sleeper("127.0.0.1", 9);
  net->command({"wol", "adr", "127.1"});
  EXPECT_EQ("OK", net->command({"wol", "snd"}));
  EXPECT_EQ(packetFor(std::string(6, '\0')), sleeper.receive().bytes);
}

TEST_F(WakeOnLanNetwork, LimitedBroadcastIsAllowed) {
  OwnNetwork::ip({"route", "add", "default", "dev", "lo"});
  const UdpPeer sleeper("0.0.0.0", 9);
  net->command({"wol", "adr", "255.255.255.255"});
  net->command({"wol", "mac", "ff:fe:fd:fc:fb:fa"});
  EXPECT_EQ("OK", net->command({"wol", "snd"}));
  EXPECT_EQ(packetFor("\xff\xfe\xfd\xfc\xfb\xfa"), sleeper.receive().bytes);
}

TEST_F(WakeOnLanNetwork, BroadcastReachesTheOtherHosts) {
  const OtherHost other;
  OwnNetwork::ip({"route", "add", "default", "dev", "near"});
  const UdpPeer sleeper = other.udpPeer(9);
  net->command({"wol", "mac", "00:11:22:33:44:55"});
  for (const char* address : {OtherHost::kBroadcast, "255.255.255.255"}) {
    net->command({"wol", "adr", address});
    EXPECT_EQ("OK", net->command({"wol", "snd"})) << address;
    const Datagram packet = sleeper.receive();
    EXPECT_EQ(packetFor(std::string("\x00\x11\x22\x33\x44\x55", 6)), packet.bytes);
    EXPECT_EQ(OtherHost::kAddressHere, packet.address);
  }
}

// Each success leaves its socket open for the life of the process, as callers rely on.
TEST_F(WakeOnLanNetwork, EachSuccessLeavesOneDescriptorOpen) {
  net->command({"wol", "adr", "127.0.0.1"});
  const std::set<int> before = openDescriptors();
  for (std::size_t sent = 1; sent <= 3; ++sent) {
    EXPECT_EQ("OK", net->command({"wol", "snd"}));
    EXPECT_EQ(before.size() + sent, openDescriptors().size());
  }
}

TEST_F(WakeOnLanNetwork, DescriptorOutlivesTheRovik) {
  const int left_open = sendAndFind();
  ASSERT_GE(left_open, 0);
  const int port = localPortOf(left_open);
  EXPECT_GT(port, 0);
  EXPECT_EQ(FD_CLOEXEC, fcntl(left_open, F_GETFD));
  net.reset();
  EXPECT_EQ(port, localPortOf(left_open));
}

// The numbers below FD_SETSIZE are the only ones that a link can use.
TEST_F(WakeOnLanNetwork, DescriptorsStayOutOfTheWayOfLinks) {
  const int next = nextDescriptor();
  EXPECT_GE(sendAndFind(), FD_SETSIZE);
  EXPECT_EQ(next, nextDescriptor());
}

TEST_F(WakeOnLanNetwork, DescriptorStaysOpenWhereOnlyLowNumbersAreAllowed) {
  const DescriptorLimit low_only(FD_SETSIZE);
  ASSERT_TRUE(low_only.isSet());
  const int next = nextDescriptor();
  EXPECT_EQ(next, sendAndFind());
  EXPECT_EQ(0U, warnings());
}

TEST_F(WakeOnLanNetwork, SendsInEveryModeAndBesideAnOpenLink) {
  net->command({"wol", "adr", "127.0.0.1"});
  for (const char* mode : {"udp", "tcp", "tty", "ssl"}) {
    net->command({"mode", mode});
    EXPECT_EQ("OK", net->command({"wol", "snd"})) << mode;
    EXPECT_EQ(-1, net->fd);
  }
  net->command({"mode", "tcp"});
  TcpPeer peer;
  openTo(peer);
  const int link = net->fd;
  feed(peer, "half a line");
  EXPECT_EQ("OK", net->command({"wol", "snd"}));
  EXPECT_EQ(link, net->fd);
  EXPECT_EQ(11, net->inbufpos);
  EXPECT_EQ(sending, newLines());
}

TEST_F(WakeOnLanNetwork, UnreachableAddressIsReported) {
  const std::set<int> before = openDescriptors();
  net->command({"wol", "adr", "192.0.2.255"});
  newLines();
  EXPECT_EQ("ERROR", net->command({"wol", "snd"}));
  Lines expected = sending;
  expected.push_back(errorLine("sendto (errno: 101 Network is unreachable)"));
  EXPECT_EQ(expected, newLines());
  EXPECT_EQ("sendto (errno: 101 Network is unreachable)", warning());
  EXPECT_EQ(before, openDescriptors());
}

}  // namespace
