// Where a line goes out: what a write does around the bytes, when a tick opens the link, and a
// rovik that writes on a thread of its own. Over TCP; what is the same for all transports is in
// OutboundTransportsTest.cpp.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "Drovane.h"
#include "OutboundNet.h"
#include "framework/RovikHost.h"
#include "support/Eventually.h"
#include "support/Inbox.h"
#include "support/TestRovik.h"

namespace {

using OutboundWrite = OutboundNet;

// Data and end of line together stay below the capacity, so a byte is always left.
TEST_F(OutboundWrite, EndOfLineTakesItsRoomFromTheData) {
  const std::string end_of_line = "0123456789";
  set("addeol", "on");
  std::string expected;
  for (const std::size_t size : {1U, 2U, 10U}) {
    set("eolout", end_of_line.substr(0, size));
    EXPECT_EQ(0, send(std::string(kBuffer - size, 'x')));
    EXPECT_EQ(0, send(std::string(kBuffer - size - 1, 'y')));
    expected += std::string(kBuffer - size - 1, 'y') + end_of_line.substr(0, size);
  }
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_GE(net->fd, 0);
  EXPECT_EQ(expected, sent());
}

TEST_F(OutboundWrite, RequestThatLeavesNoRoomForItsEndOfLineIsDroppedWithoutAWord) {
  set("addeol", "on");
  set("eolout", "\\r\\n");
  request("5_0_0", std::string(4094, 'x'));
  request("5_0_0", std::string(4095, 'x'));
  request("5_0_0", std::string(4093, 'y'));
  EXPECT_EQ((Lines{requestLine("5_0_0", std::string(4094, 'x')),
                   requestLine("5_0_0", std::string(4095, 'x')),
                   requestLine("5_0_0", std::string(4093, 'y'))}),
            newLines());
  EXPECT_EQ(0U, warnings());
  EXPECT_EQ(std::string(4093, 'y') + "\r\n", sent());
}

TEST_F(OutboundWrite, CapacityIsTheCallers) {
  set("addeol", "on");
  EXPECT_EQ(0, send("12345678", 10));
  EXPECT_EQ(0, send("abcdefghi", 10));
  EXPECT_EQ("12345678\n", sent());
}

// The link is opened for data that is then dropped, and not closed after it: nothing was written.
TEST_F(OutboundWrite, DataWithoutRoomForItsEndOfLineOpensTheLinkAndLeavesItOpen) {
  set("addeol", "on");
  net->persistent = false;
  net->echo = true;
  net->iodebug = true;
  net->closeGeneric();
  EXPECT_EQ(0, send(std::string(4095, 'x')));
  EXPECT_EQ(Lines{traceLine("opening TCP socket")}, newLines());
  EXPECT_GE(net->fd, 0);
  peer.accept();
  EXPECT_EQ("", sent());
}

// --- What a write does ---------------------------------------------------------------------------

TEST_F(OutboundWrite, EndOfLineGoesInPlaceBehindTheData) {
  set("addeol", "on");
  set("eolout", "\\r\\n");
  std::string buffer = "ON......";
  EXPECT_EQ(0, net->sndData(buffer.data(), 2, 8));
  EXPECT_EQ("ON\r\n....", buffer);
  EXPECT_EQ("ON\r\n", sent());
}

TEST_F(OutboundWrite, RawDataGetsNoEndOfLine) {
  set("addeol", "on");
  net->raw = true;
  std::string buffer = "ON......";
  EXPECT_EQ(0, net->sndData(buffer.data(), 2, 8));
  EXPECT_EQ("ON......", buffer);
  request("5_0_0", "OFF");
  EXPECT_EQ("ONOFF", sent());
}

TEST_F(OutboundWrite, RawDataMayFillTheCapacity) {
  set("addeol", "on");
  net->raw = true;
  EXPECT_EQ(0, send(std::string(4096, 'x')));
  EXPECT_EQ(std::string(4096, 'x'), sent());
}

TEST_F(OutboundWrite, WithoutAnEndOfLineDataMayFillTheCapacity) {
  EXPECT_EQ(0, send(std::string(4096, 'x')));
  EXPECT_EQ(std::string(4096, 'x'), sent());
}

TEST_F(OutboundWrite, NoDataIsAnEndOfLineOrNothing) {
  EXPECT_EQ(0, send(""));
  set("addeol", "on");
  set("eolout", ";");
  EXPECT_EQ(0, send(""));
  EXPECT_EQ(0, send(""));
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_EQ(";;", sent());
}

TEST_F(OutboundWrite, EmptyEndOfLineAddsNothing) {
  set("addeol", "on");
  set("eolout", "");
  EXPECT_EQ(0, send(std::string(4095, 'x')));
  EXPECT_EQ(0, send(std::string(4096, 'y')));
  EXPECT_EQ(std::string(4095, 'x'), sent());
}

TEST_F(OutboundWrite, IodebugShowsWhatIsWrittenBeforeItIsHeardAgain) {
  set("addeol", "on");
  set("eolout", "\\r\\n");
  set("iodebug", "on");
  set("echo", "on");
  rule("5_1_0", "", "ON\\x00\\\\");
  request("5_1_0", "x");
  EXPECT_EQ((Lines{requestLine("5_1_0", "x"), matchLine(),
                   traceLine("sndData (length = 6): ON\\x00\\\\\\r\\n"),
                   traceLine("rcvData (length = 6): ON\\x00\\\\\\r\\n"),
                   traceLine("Rovik Message: MM_DATA 5_0_0 = {ON\\x00\\\\\\r\\n}")}),
            newLines());
}

TEST_F(OutboundWrite, IodebugHasNothingToShowOfNoData) {
  set("iodebug", "on");
  EXPECT_EQ(0, send(""));
  EXPECT_EQ(Lines{}, newLines());
}

TEST_F(OutboundWrite, EchoIsHeardLikeALineOfThePeers) {
  Inbox inbox;
  set("addeol", "on");
  set("echo", "on");
  set("reg", "on");
  char key[] = "5_7_0", regex[] = "^T=(.*)\\\\n$", output[] = "\\1", type[] = "MM_DATA";
  net->setRegexTableIN(key, regex, output, type);
  net->inbufpos = 3;
  request("5_0_0", "T=21");
  EXPECT_EQ((std::vector{dataText("5_0_0", "T=21\\n"), dataText("5_7_0", "21")}), inbox.take());
  EXPECT_EQ(3, net->inbufpos);
}

TEST_F(OutboundWrite, EchoIsNotCutIntoLines) {
  Inbox inbox;
  set("echo", "on");
  set("chopeol", "on");
  request("5_0_0", "a\\nb\\n");
  EXPECT_EQ(std::vector{dataText("5_0_0", "a\\nb\\n")}, inbox.take());
}

TEST_F(OutboundWrite, NoDataIsHeardAsAnEmptyLine) {
  Inbox inbox;
  set("echo", "on");
  EXPECT_EQ(0, send(""));
  EXPECT_EQ(std::vector{dataText("5_0_0", "")}, inbox.take());
}

TEST_F(OutboundWrite, RequestThatSendsNothingIsNotHeard) {
  Inbox inbox;
  set("echo", "on");
  request("5_0_0", "");
  request("5_1_0", "x");
  EXPECT_EQ(std::vector<Arrived>{}, inbox.take());
}

TEST_F(OutboundWrite, WithoutAPeerARequestIsDropped) {
  const RefusingPort nobody;
  Inbox inbox;
  net->closeGeneric();
  set("port", std::to_string(nobody.port()));
  set("echo", "on");
  set("iodebug", "on");
  request("5_0_0", "ON");
  const Lines failure = {
      traceLine("opening TCP socket"), errorLine("getsockopt (errno: 111 Connection refused)"),
      errorLine("open failed"), traceLine("request message ignored as socket not connected")};
  Lines expected = failure;
  expected.insert(expected.begin(), requestLine("5_0_0", "ON"));
  EXPECT_EQ(expected, newLines());
  EXPECT_EQ("open failed", warning());
  EXPECT_EQ(0, send("ON"));
  EXPECT_EQ(failure, newLines());
  EXPECT_EQ(std::vector<Arrived>{}, inbox.take());
}

// The signal of a broken pipe would end the process.
TEST_F(OutboundWrite, LinkThatMayNotSendIsReportedAndClosed) {
  ASSERT_EQ(0, ::shutdown(net->fd, SHUT_WR));
  request("5_0_0", "ON");
  EXPECT_EQ((Lines{requestLine("5_0_0", "ON"), errorLine("send (errno: 32 Broken pipe)")}),
            newLines());
  EXPECT_EQ("send (errno: 32 Broken pipe)", warning());
  EXPECT_EQ(-1, net->fd);
}

// A transport that is none of the four writes nothing, and says nothing of it.
TEST_F(OutboundWrite, UnknownTransportWritesNothing) {
  net->commode = static_cast<ComMode>(17);
  EXPECT_EQ(0, send("x"));
  EXPECT_EQ(Lines{}, newLines());
  net->commode = COM_TCP;
  EXPECT_EQ("", sent());
}

TEST_F(OutboundWrite, TickWithoutReconnectLeavesAClosedLinkAlone) {
  net->closeGeneric();
  EXPECT_EQ(0, net->selectTI());
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(Lines{}, newLines());
}

TEST_F(OutboundWrite, TickWithReconnectLeavesAnOpenLinkAlone) {
  net->reconnect = true;
  const int link = net->fd;
  EXPECT_EQ(0, net->selectTI());
  EXPECT_EQ(link, net->fd);
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_FALSE(peer.linkWaits());
}

TEST_F(OutboundWrite, EveryTickTriesAgainToOpen) {
  const RefusingPort nobody;
  net->closeGeneric();
  set("port", std::to_string(nobody.port()));
  net->reconnect = true;
  for (int tick = 0; tick < 3; ++tick) {
    EXPECT_EQ(0, net->selectTI());
    EXPECT_EQ(
        (Lines{traceLine("opening TCP socket"),
               errorLine("getsockopt (errno: 111 Connection refused)"), errorLine("open failed")}),
        newLines());
  }
  set("port", std::to_string(peer.port()));
  EXPECT_EQ(0, net->selectTI());
  peer.accept();
  request("5_0_0", "ON");
  EXPECT_EQ("ON", sent());
}

// --- With the rovik's own thread -----------------------------------------------------------------

class LiveOutbound : public OutboundNet {
 protected:
  // A write that waits is ended.
  ~LiveOutbound() override {
    drovane::RovikHost::of(*net).interrupt();
    net->stop();
    if (other) other->stop();
    if (other && other->fd >= 0) ::close(other->fd);
  }

  // Whether a write would have to wait for the peer.
  bool linkIsFull() const {
    pollfd watched{net->fd, POLLOUT, 0};
    return poll(&watched, 1, 0) == 0;
  }

  static void start(ExposedNet& rovik) { ASSERT_EQ(0, drovane::RovikHost::of(rovik).start()); }

  // A second rovik at work, with a peer of its own.
  void startOther() {
    other = ExposedNet::make(6, "other");
    other->persistent = true;
    other->command({"host", "127.0.0.1"});
    other->command({"port", std::to_string(other_peer.port())});
    ASSERT_EQ("OK", other->command({"open"}));
    other_peer.accept();
    start(*other);
  }

  TcpPeer other_peer;
  std::unique_ptr<ExposedNet> other;
};

TEST_F(LiveOutbound, RequestsOfAnotherRovikReachThePeerInTheirOrder) {
  constexpr int kRequests = 2000;
  Drovane::global.setLogLevel(LOG_LEVEL_ERROR);
  set("addeol", "on");
  rule("5_1_0", "^(.*)$", "SET \\1");
  start(*net);
  const auto sender = TestRovik::make(91, "sender");
  std::string expected;
  for (int i = 0; i < kRequests; ++i) {
    const auto msg = to(5, requestFor("5_1_0", std::to_string(i)));
    ASSERT_EQ(0, sender->messageSnd(msg.get()));
    expected += "SET " + std::to_string(i) + "\n";
  }
  EXPECT_EQ(expected, peer.receive(expected.size()));
}

// A write to a peer that does not read waits for it, for as long as it takes. Meanwhile everybody
// else goes on; once the peer reads, not a byte is missing.
TEST_F(LiveOutbound, PeerThatDoesNotReadHoldsUpItsOwnRovikOnly) {
  // Many times what both ends can hold.
  constexpr int kRequests = 2000;
  Drovane::global.setLogLevel(LOG_LEVEL_ERROR);
  const int room = 65536;
  ASSERT_EQ(0, ::setsockopt(net->fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof room));
  start(*net);
  startOther();
  const auto sender = TestRovik::make(91, "sender");
  std::string expected;
  for (int i = 0; i < kRequests; ++i) {
    const std::string text = std::to_string(10000 + i) + std::string(4090, '.');
    ASSERT_EQ(0, sender->messageSnd(to(5, requestFor("5_0_0", text)).get()));
    expected += text;
  }
  ASSERT_TRUE(eventually([this] { return linkIsFull(); }));
  for (int i = 0; i < 1000; ++i) {
    const std::string text = std::to_string(1000 + i);
    ASSERT_EQ(0, sender->messageSnd(to(6, requestFor("6_0_0", text)).get()));
    ASSERT_EQ(text, other_peer.receive(4));
  }
  EXPECT_TRUE(eventually([this] { return linkIsFull(); }));
  EXPECT_GT(drovane::RovikHost::of(*net).status().queued, 0U);
  EXPECT_EQ(expected, peer.receive(expected.size()));
  EXPECT_EQ(0U, warnings());
}

}  // namespace
