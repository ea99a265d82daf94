// Datagrams in both directions on this machine; what takes a second host is in UdpHostsTest.cpp.
#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <future>

#include "CallFaults.h"
#include "UdpNet.h"
#include "framework/Descriptor.h"
#include "support/Eventually.h"
#include "support/Inbox.h"

namespace {

using Values = std::vector<std::string>;

// The rovik's peer lives on port 1024, so that the rovik takes a port of its own choice beside it.
class UdpData : public UdpNet {
 protected:
  UdpData() { openTo(peer.address(), peer.port()); }

  // The unit that a datagram of the peer's is.
  Values unitsOf(std::string_view bytes) {
    feed(peer, bytes);
    EXPECT_TRUE(net->bufferIsClean());
    EXPECT_EQ(0, net->inbufpos);
    return inbox.takeValues();
  }

  // Data in a buffer that leaves room for an end of line.
  int send(const std::string& data) {
    std::string buffer = data;
    buffer.resize(4096);
    return net->sndData(buffer.data(), static_cast<int>(data.size()), 4096);
  }

  std::string gone() const {
    return "connection closed by peer " + peer.address() + ":" + std::to_string(peer.port());
  }

  // No datagram can go to port 0.
  void loseThePeer() { net->p_addr.sin_port = 0; }
  static constexpr char kNoWay[] = "sendto (errno: 22 Invalid argument)";

  const UdpPeer peer = UdpPeer::foreign(1024);
  Inbox inbox;
};

TEST_F(UdpData, DatagramOfAForeignHostIsTracedAndHandedOver) {
  feed(peer, "T=21\n");
  EXPECT_EQ((Lines{messageLine(peer.address(), 1024, 5),
                   traceLine("Rovik Message: MM_DATA 5_0_0 = {T=21\\n}")}),
            newLines());
  EXPECT_EQ(std::vector{dataText("5_0_0", "T=21\\n")}, inbox.take());
}

TEST_F(UdpData, AnybodyIsHeard) {
  for (int i = 0; i < 3; ++i) {
    const UdpPeer other = UdpPeer::foreign(0);
    feed(other, "x");
    EXPECT_EQ(messageLine(other.address(), other.port(), 1), newLines().at(0));
  }
  EXPECT_EQ((Values{"x", "x", "x"}), inbox.takeValues());
}

TEST_F(UdpData, DatagramOfThisMachineIsDropped) {
  const UdpPeer local("127.0.0.1");
  feed(local, "loop");
  EXPECT_EQ((Lines{messageLine("127.0.0.1", local.port(), 4), ownMessageLine()}), newLines());
  EXPECT_EQ(Values{}, inbox.takeValues());
  EXPECT_EQ(0, net->inbufpos);
  EXPECT_TRUE(net->bufferIsClean());
  EXPECT_GE(net->fd, 0);
  EXPECT_EQ(0U, warnings());
}

TEST_F(UdpData, NothingIsDroppedWhenTheInterfacesCannotBeListed) {
  const UdpPeer local("127.0.0.1");
  deliver(local, "loop");
  const FailingCall fault("getifaddrs", ENOMEM);
  net->readLinkNow();
  EXPECT_TRUE(fault.happened());
  EXPECT_EQ((Lines{messageLine("127.0.0.1", local.port(), 4),
                   traceLine("Rovik Message: MM_DATA 5_0_0 = {loop}")}),
            newLines());
  EXPECT_EQ(Values{"loop"}, inbox.takeValues());
}

TEST_F(UdpData, EmptyDatagramClosesTheLink) {
  feed(peer, "");
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(Lines{errorLine(gone())}, newLines());
  EXPECT_EQ(gone(), warning());
  EXPECT_EQ(Values{}, inbox.takeValues());
}

// The report names the configured peer, and the filter looks at datagrams with something in them.
TEST_F(UdpData, EmptyDatagramClosesWhoeverHasSentIt) {
  const UdpPeer local("127.0.0.1");
  feed(local, "");
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(Lines{errorLine(gone())}, newLines());
}

TEST_F(UdpData, EmptyDatagramCompletesNothingWithEolclose) {
  net->eolclose = true;
  net->inbufpos = 3;
  feed(peer, "");
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(Values{}, inbox.takeValues());
}

TEST_F(UdpData, ReadThatFailsClosesTheLink) {
  const drovane::Descriptor no_socket(::open("/dev/null", O_RDWR | O_CLOEXEC));
  ASSERT_EQ(net->fd, dup2(no_socket.get(), net->fd));
  net->readLinkNow();
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(Lines{errorLine(gone())}, newLines());
  EXPECT_EQ(gone(), warning());
  EXPECT_EQ(Values{}, inbox.takeValues());
}

TEST_F(UdpData, ScriptHearsOfAnEmptyDatagramAsAClose) {
  script(R"(
    closed = 0
    function ROVIK_RCVCLOSE() closed = closed + 1 return 5000000 end
    function seen() return closed .. ' closed' end
  )");
  feed(peer, "");
  EXPECT_EQ((Lines{errorLine(gone()), traceLine("notify lua script of CLOSE event")}), newLines());
  EXPECT_EQ("1 closed", net->command({"seen"}));
}

TEST_F(UdpData, DatagramThatFillsTheBufferIsOneUnit) {
  const std::string bytes(4096, 'x');
  EXPECT_EQ(Values{bytes}, unitsOf(bytes));
  EXPECT_EQ(messageLine(peer.address(), 1024, 4096), newLines().at(0));
}

TEST_F(UdpData, LongerDatagramIsCut) {
  for (const std::size_t size : {4097U, 8192U, 65507U}) {
    EXPECT_EQ(Values{std::string(4096, 'x')}, unitsOf(std::string(size, 'x'))) << size;
    EXPECT_EQ(messageLine(peer.address(), 1024, 4096), newLines().at(0));
    EXPECT_EQ(Values{"next"}, unitsOf("next"));
    newLines();
  }
  EXPECT_GE(net->fd, 0);
}

TEST_F(UdpData, DatagramsAreNeverFramed) {
  const struct {
    const char* keyword;
    const char* word;
  } kSettings[] = {
      {"eolin", "b"}, {"eolin", "\\r\\n"}, {"chopeol", "on"},  {"eolclose", "on"},
      {"raw", "on"},  {"eolclose", "off"}, {"chopeol", "off"},
  };
  EXPECT_EQ(Values{"a\\nb\\n\\r\\nc"}, unitsOf("a\nb\n\r\nc"));
  for (const auto& setting : kSettings) {
    ASSERT_EQ("OK", net->command({setting.keyword, setting.word}));
    EXPECT_EQ(Values{"a\\nb\\n\\r\\nc"}, unitsOf("a\nb\n\r\nc")) << setting.keyword;
    EXPECT_EQ(Values{"\\n"}, unitsOf("\n")) << setting.keyword;
  }
}

TEST_F(UdpData, ZeroBytesAreData) {
  EXPECT_EQ(Values{"a\\x00b\\x00"}, unitsOf(std::string("a\0b\0", 4)));
  EXPECT_EQ(Values{"\\x00"}, unitsOf(std::string(1, '\0')));
}

TEST_F(UdpData, HalfALineIsNotJoinedWithTheNext) {
  EXPECT_EQ(Values{"half a "}, unitsOf("half a "));
  EXPECT_EQ(Values{"line\\n"}, unitsOf("line\n"));
}

TEST_F(UdpData, WhatTheBufferHeldIsGone) {
  net->inbufpos = 7;
  net->inbuf[6] = 'y';
  net->inbuf[4095] = 'z';
  EXPECT_EQ(Values{"x"}, unitsOf("x"));
}

TEST_F(UdpData, OneReadTakesOneDatagram) {
  deliver(peer, "1");
  deliver(peer, "2");
  net->readLinkNow();
  EXPECT_EQ(Values{"1"}, inbox.takeValues());
  net->readLinkNow();
  EXPECT_EQ(Values{"2"}, inbox.takeValues());
}

TEST_F(UdpData, ScriptGetsRawBytesInRawMode) {
  script(R"(
    function ROVIK_RCVIO(data) got = data return 5000000 end
    function seen() return (got:gsub('.', function(c) return ('%02x'):format(c:byte()) end)) end
  )");
  net->command({"raw", "on"});
  feed(peer, std::string("a\0\n", 3));
  EXPECT_EQ("61000a", net->command({"seen"}));
}

TEST_F(UdpData, WakeUpWithoutADatagramChangesNothing) {
  auto read = std::async(std::launch::async, [this] { net->readLinkNow(); });
  const bool returned = read.wait_for(kPatienceOfTests) == std::future_status::ready;
  if (!returned) peer.send("so that the test ends", "127.0.0.1", localPort());
  read.wait();
  EXPECT_TRUE(returned);
  EXPECT_GE(net->fd, 0);
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_EQ(0U, warnings());
  EXPECT_EQ(Values{"x"}, unitsOf("x"));
}

TEST_F(UdpData, DataGoesToThePeerAsOneDatagram) {
  net->persistent = true;
  EXPECT_EQ(0, send(std::string("ON\0\n", 4)));
  EXPECT_EQ((Datagram{std::string("ON\0\n", 4), "127.0.0.1", localPort()}), peer.receive());
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_GE(net->fd, 0);
}

TEST_F(UdpData, PeerMayAnswer) {
  net->persistent = true;
  send("?");
  const Datagram question = peer.receive();
  peer.send("42", question.address, question.port);
  awaitDatagram();
  net->readLinkNow();
  EXPECT_EQ(Values{"42"}, inbox.takeValues());
}

TEST_F(UdpData, EndOfLineGoesIntoTheSameDatagram) {
  net->command({"eolout", "\\r\\n"});
  net->command({"addeol", "on"});
  send("ON");
  EXPECT_EQ("ON\r\n", peer.receive().bytes);
}

TEST_F(UdpData, LinkThatIsNotKeptClosesAfterTheWriteAndOpensForTheNext) {
  EXPECT_EQ(0, send("1"));
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(0, send("2"));
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ("1", peer.receive().bytes);
  EXPECT_EQ("2", peer.receive().bytes);
  EXPECT_EQ((Lines{traceLine("opening UDP socket"), traceLine("setting UDP broadcast option")}),
            newLines());
}

TEST_F(UdpData, NoDataIsAnEmptyDatagram) {
  EXPECT_EQ(0, send(""));
  EXPECT_EQ("", peer.receive().bytes);
}

TEST_F(UdpData, ScriptSends) {
  script("function say(words) sndIO(words.arg1) return 'said' end");
  net->persistent = true;
  for (const auto& [text, bytes] : {std::pair{"T?\\r\\n", "T?\r\n"}, {"", ""}, {"x", "x"}}) {
    EXPECT_EQ("said", net->command({"say", text}));
    EXPECT_EQ(bytes, peer.receive().bytes);
  }
}

TEST_F(UdpData, NobodyAtThePeersPortIsNoFailure) {
  net->persistent = true;
  const int port = UdpPeer("127.0.0.1").port();
  net->p_addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  net->p_addr.sin_port = htons(static_cast<std::uint16_t>(port));
  EXPECT_EQ(0, send("1"));
  EXPECT_EQ(0, send("2"));
  EXPECT_GE(net->fd, 0);
  EXPECT_EQ(Lines{}, newLines());
}

TEST_F(UdpData, FailedWriteIsReportedAndCloses) {
  net->persistent = true;
  net->echo = true;
  loseThePeer();
  EXPECT_EQ(-1, send("x"));
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(Lines{errorLine(kNoWay)}, newLines());
  EXPECT_EQ(kNoWay, warning());
  EXPECT_EQ(Values{}, inbox.takeValues());
}

TEST_F(UdpData, ScriptHearsOfTheCloseAfterAFailedWrite) {
  script("function ROVIK_RCVCLOSE() return 5000000 end function say() sndIO('x') end");
  loseThePeer();
  net->command({"say"});
  const Lines lines = newLines();
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ((Lines{traceLine("IO data from lua script"), errorLine(kNoWay),
                   traceLine("notify lua script of CLOSE event")}),
            Lines(lines.begin(), lines.begin() + 3));
}

TEST_F(UdpData, TestSendsFiveBytes) {
  net->command({"addeol", "on"});
  newLines();
  EXPECT_EQ("OK", net->command({"test"}));
  EXPECT_EQ((Datagram{"TEST\n", "127.0.0.1", localPort()}), peer.receive());
  EXPECT_FALSE(peer.datagramWaits());
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_GE(net->fd, 0);
}

TEST_F(UdpData, FailedTestIsReportedAndCloses) {
  loseThePeer();
  EXPECT_EQ("ERROR", net->command({"test"}));
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(Lines{errorLine(kNoWay)}, newLines());
  EXPECT_EQ(kNoWay, warning());
  EXPECT_EQ(1U, warnings());
}

}  // namespace
