// Wake-on-LAN: its settings and its packet.
#include <arpa/inet.h>
#include <dirent.h>
#include <net/if.h>
#include <net/route.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <thread>

#include "NetTest.h"
#include "framework/Descriptor.h"
#include "support/Eventually.h"

namespace {

using drovane::Descriptor;
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
  rlimit before{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
  const rlimit none{3, before.rlim_max};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
  EXPECT_EQ(-1, net->sendWOL());
  EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
  EXPECT_EQ((Lines{traceLine("opening WOL UDP socket"),
                   errorLine("allocate socket (errno: 24 Too many open files)")}),
            newLines());
  EXPECT_EQ("allocate socket (errno: 24 Too many open files)", warning());
}

int openDescriptors() {
  int count = 0;
  DIR* folder = opendir("/proc/self/fd");
  if (folder == nullptr) return -1;
  while (readdir(folder) != nullptr) ++count;
  closedir(folder);
  return count;
}

TEST_F(WakeOnLan, FailureLeavesNoDescriptorOpen) {
  const int before = openDescriptors();
  for (int i = 0; i < 3; ++i) EXPECT_EQ("ERROR", net->command({"wol", "snd"}));
  EXPECT_EQ(before, openDescriptors());
}

// Runs each test's body on a thread in a network of its own, where port 9 is free, nothing leaves
// the machine and the routes are the test's. A body opens its sockets there; they belong to that
// network wherever they are used later.
class WakeOnLanNetwork : public WakeOnLan {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "a network of its own takes root";
  }

  static void inOwnNetwork(const std::function<void()>& body) {
    std::thread([&] {
      if (unshare(CLONE_NEWNET) != 0) {
        ADD_FAILURE() << "no network of its own: " << std::strerror(errno);
        return;
      }
      body();
    }).join();
  }

  static Descriptor udpSocket() {
    return Descriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  }

  static void raiseLoopback() {
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    ASSERT_EQ(0, ioctl(udpSocket().get(), SIOCSIFFLAGS, &request)) << std::strerror(errno);
  }

  static void routeEverythingToLoopback() {
    rtentry route{};
    route.rt_dst.sa_family = AF_INET;
    route.rt_genmask.sa_family = AF_INET;
    route.rt_flags = RTF_UP;
    char device[] = "lo";
    route.rt_dev = device;
    ASSERT_EQ(0, ioctl(udpSocket().get(), SIOCADDRT, &route)) << std::strerror(errno);
  }

  // A socket on port 9 of every address.
  static Descriptor discardService() {
    Descriptor service = udpSocket();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(9);
    EXPECT_EQ(0, bind(service.get(), reinterpret_cast<sockaddr*>(&address), sizeof address));
    return service;
  }

  static std::string nextDatagram(const Descriptor& service) {
    pollfd watched{service.get(), POLLIN, 0};
    const auto patience = std::chrono::milliseconds(kPatienceOfTests).count();
    if (poll(&watched, 1, static_cast<int>(patience)) != 1) return "no datagram";
    std::string bytes(2000, '\0');
    const auto size = recv(service.get(), bytes.data(), bytes.size(), 0);
    bytes.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return bytes;
  }

  static std::string packetFor(const std::string& mac) {
    std::string packet(6, '\xFF');
    for (int copy = 0; copy < 16; ++copy) packet += mac;
    return packet;
  }

  const Lines sending = {traceLine("opening WOL UDP socket"),
                         traceLine("setting UDP broadcast option"),
                         traceLine("sending WOL UDP broadcast")};
};

TEST_F(WakeOnLanNetwork, PacketGoesToPortNineOfTheAddress) {
  inOwnNetwork([this] {
    raiseLoopback();
    const Descriptor service = discardService();
    net->command({"wol", "adr", "127.0.0.1"});
    net->command({"wol", "mac", "00:11:22:33:44:55"});
    newLines();
    EXPECT_EQ("OK", net->command({"wol", "snd"}));
    EXPECT_EQ(sending, newLines());
    const std::string packet = nextDatagram(service);
    EXPECT_EQ(102U, packet.size());
    EXPECT_EQ(packetFor(std::string("\x00\x11\x22\x33\x44\x55", 6)), packet);
    EXPECT_EQ(0U, warnings());
  });
}

TEST_F(WakeOnLanNetwork, LimitedBroadcastIsAllowed) {
  inOwnNetwork([this] {
    raiseLoopback();
    routeEverythingToLoopback();
    const Descriptor service = discardService();
    net->command({"wol", "adr", "255.255.255.255"});
    net->command({"wol", "mac", "ff:fe:fd:fc:fb:fa"});
    EXPECT_EQ("OK", net->command({"wol", "snd"}));
    EXPECT_EQ(packetFor("\xff\xfe\xfd\xfc\xfb\xfa"), nextDatagram(service));
  });
}

// Each success leaves its socket open for the life of the process, as callers rely on.
TEST_F(WakeOnLanNetwork, EachSuccessLeavesOneDescriptorOpen) {
  inOwnNetwork([this] {
    raiseLoopback();
    net->command({"wol", "adr", "127.0.0.1"});
    const int before = openDescriptors();
    for (int sent = 1; sent <= 3; ++sent) {
      EXPECT_EQ("OK", net->command({"wol", "snd"}));
      EXPECT_EQ(before + sent, openDescriptors());
    }
  });
}

TEST_F(WakeOnLanNetwork, SendsInEveryModeAndBesideAnOpenLink) {
  inOwnNetwork([this] {
    raiseLoopback();
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
    EXPECT_EQ("OK", net->command({"wol", "snd"}));
    EXPECT_EQ(link, net->fd);
    EXPECT_EQ(sending, newLines());
  });
}

TEST_F(WakeOnLanNetwork, UnreachableAddressIsReported) {
  inOwnNetwork([this] {
    const int before = openDescriptors();
    net->command({"wol", "adr", "192.0.2.255"});
    newLines();
    EXPECT_EQ("ERROR", net->command({"wol", "snd"}));
    Lines expected = sending;
    expected.push_back(errorLine("sendto (errno: 101 Network is unreachable)"));
    EXPECT_EQ(expected, newLines());
    EXPECT_EQ("sendto (errno: 101 Network is unreachable)", warning());
    EXPECT_EQ(before, openDescriptors());
  });
}

}  // namespace
