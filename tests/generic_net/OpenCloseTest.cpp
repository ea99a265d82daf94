// The link over TCP: how it opens and closes, and what a failure reports.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "CallFaults.h"
#include "NetTest.h"
#include "framework/RovikHost.h"
#include "support/DescriptorLimits.h"

namespace {

using testing::MatchesRegex;

class OpenClose : public NetTest {
 protected:
  void pointAt(int port) {
    net->command({"host", "127.0.0.1"});
    net->command({"port", std::to_string(port)});
    newLines();
  }

  // Opening fails with this report, and the link is closed as before.
  void expectFailure(const std::string& report) {
    EXPECT_EQ("ERROR", net->command({"open"}));
    EXPECT_EQ(-1, net->fd);
    EXPECT_EQ((Lines{traceLine("opening TCP socket"), errorLine(report), errorLine("open failed")}),
              newLines());
    EXPECT_EQ("open failed", warning());
    EXPECT_EQ(2U, warnings());
  }

  // Something in the buffer that opening and closing must remove.
  void soilBuffer() {
    net->inbuf[0] = 'x';
    net->inbuf[4095] = 'y';
    net->inbufpos = 7;
  }
};

TEST_F(OpenClose, OpenConnectsAndSaysSoOnlyInTheTrace) {
  TcpPeer peer;
  pointAt(peer.port());
  EXPECT_EQ("OK", net->command({"open"}));
  EXPECT_GE(net->fd, 0);
  EXPECT_EQ(Lines{traceLine("opening TCP socket")}, newLines());
  peer.accept();
  deliver(peer, "x");
  EXPECT_EQ(0U, warnings());
}

TEST_F(OpenClose, OpenLinkBlocksAndIsNotInherited) {
  TcpPeer peer;
  openTo(peer);
  EXPECT_EQ(0, fcntl(net->fd, F_GETFL) & O_NONBLOCK);
  EXPECT_EQ(FD_CLOEXEC, fcntl(net->fd, F_GETFD));
}

TEST_F(OpenClose, OpenRemembersBothAddresses) {
  TcpPeer peer;
  openTo(peer);
  EXPECT_EQ(AF_INET, net->p_addr.sin_family);
  EXPECT_EQ(htonl(INADDR_LOOPBACK), net->p_addr.sin_addr.s_addr);
  EXPECT_EQ(peer.port(), ntohs(net->p_addr.sin_port));
  EXPECT_THAT(net->p_addr.sin_zero, testing::Each(0));
  EXPECT_EQ(AF_INET, net->l_addr.sin_family);
  EXPECT_EQ(htonl(INADDR_ANY), net->l_addr.sin_addr.s_addr);
  EXPECT_EQ(0, net->l_addr.sin_port);
}

TEST_F(OpenClose, OpeningAnOpenLinkDoesNothing) {
  TcpPeer peer;
  openTo(peer);
  const int link = net->fd;
  soilBuffer();
  EXPECT_EQ(0, net->openGeneric());
  EXPECT_EQ(link, net->fd);
  EXPECT_EQ(7, net->inbufpos);
  EXPECT_EQ('x', net->inbuf[0]);
  EXPECT_EQ('y', net->inbuf[4095]);
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_FALSE(peer.linkWaits());
}

TEST_F(OpenClose, OpenEmptiesTheBuffer) {
  TcpPeer peer;
  soilBuffer();
  openTo(peer);
  EXPECT_EQ(0, net->inbufpos);
  EXPECT_TRUE(net->bufferIsClean());
}

TEST_F(OpenClose, FailedOpenEmptiesTheBufferToo) {
  const RefusingPort nobody;
  pointAt(nobody.port());
  soilBuffer();
  EXPECT_EQ(-1, net->openGeneric());
  EXPECT_EQ(0, net->inbufpos);
  EXPECT_TRUE(net->bufferIsClean());
}

TEST_F(OpenClose, CloseEndsTheLinkWithoutAWord) {
  TcpPeer peer;
  openTo(peer);
  const int link = net->fd;
  EXPECT_EQ("OK", net->command({"close"}));
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(-1, fcntl(link, F_GETFD));
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_TRUE(peer.seesEnd());
}

TEST_F(OpenClose, CloseDropsWhatWaitsInTheBuffer) {
  TcpPeer peer;
  openTo(peer);
  soilBuffer();
  net->closeGeneric();
  EXPECT_EQ(0, net->inbufpos);
  EXPECT_TRUE(net->bufferIsClean());
  EXPECT_EQ(Lines{}, newLines());
}

TEST_F(OpenClose, ClosingAClosedLinkDoesNothing) {
  soilBuffer();
  EXPECT_EQ(0, net->closeGeneric());
  EXPECT_EQ(7, net->inbufpos);
  EXPECT_EQ('x', net->inbuf[0]);
  EXPECT_EQ(Lines{}, newLines());
}

TEST_F(OpenClose, TransportsOwnCloseDoesNothing) {
  TcpPeer peer;
  openTo(peer);
  EXPECT_EQ(0, net->closeTCP());
  EXPECT_GE(net->fd, 0);
}

TEST_F(OpenClose, UnknownTransportIsClosedBeforeItIsReported) {
  TcpPeer peer;
  openTo(peer);
  soilBuffer();
  net->commode = static_cast<ComMode>(17);
  EXPECT_EQ("ERROR", net->command({"close"}));
  EXPECT_EQ(-1, net->fd);
  EXPECT_TRUE(net->bufferIsClean());
  EXPECT_EQ(Lines{errorLine("could not close")}, newLines());
  EXPECT_EQ("could not close", warning());
  EXPECT_TRUE(peer.seesEnd());
}

TEST_F(OpenClose, UnknownTransportDoesNotOpen) {
  net->commode = static_cast<ComMode>(17);
  EXPECT_EQ("ERROR", net->command({"open"}));
  EXPECT_EQ(Lines{errorLine("open failed")}, newLines());
  EXPECT_EQ("open failed", warning());
}

TEST_F(OpenClose, ReopensAfterAClose) {
  TcpPeer peer;
  openTo(peer);
  net->command({"close"});
  openTo(peer);
  deliver(peer, "x");
  EXPECT_GE(net->fd, 0);
}

TEST_F(OpenClose, RefusedPort) {
  const RefusingPort nobody;
  pointAt(nobody.port());
  expectFailure("getsockopt (errno: 111 Connection refused)");
}

TEST_F(OpenClose, PortThatDoesNotAnswerFailsAfterASecond) {
  const UnansweringPort nobody;
  pointAt(nobody.port());
  const auto begun = std::chrono::steady_clock::now();
  expectFailure("connect timeout");
  const auto took = std::chrono::steady_clock::now() - begun;
  EXPECT_GE(took, std::chrono::milliseconds(950));
  EXPECT_LE(took, std::chrono::seconds(5));
}

// Signals, one a millisecond, for the thread that made it.
class Interruptions {
 public:
  Interruptions() {
    struct sigaction handler {};
    handler.sa_handler = [](int) {};
    sigaction(SIGUSR1, &handler, &before);
    sender = std::jthread([to = pthread_self()](const std::stop_token& enough) {
      while (!enough.stop_requested()) {
        pthread_kill(to, SIGUSR1);
        poll(nullptr, 0, 1);
      }
    });
  }
  ~Interruptions() {
    sender.request_stop();
    sender.join();
    sigaction(SIGUSR1, &before, nullptr);
  }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;

 private:
  struct sigaction before {};
  std::jthread sender;
};

// Where the connection stands is not known then.
TEST_F(OpenClose, WaitThatIsInterruptedCountsAsTooLong) {
  const UnansweringPort nobody;
  pointAt(nobody.port());
  const auto begun = std::chrono::steady_clock::now();
  {
    const Interruptions signals;
    expectFailure("connect timeout");
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(1));
}

// A broadcast address takes no connection, a network without a route leads to none: the socket is
// ready, without an error, and without a peer.
TEST_F(OpenClose, ConnectionThatTheSystemRefusesAtOnceIsMissedAtTheFirstRead) {
  net->command({"host", "255.255.255.255"});
  net->command({"port", "80"});
  newLines();
  ASSERT_EQ("OK", net->command({"open"}));
  EXPECT_EQ(Lines{traceLine("opening TCP socket")}, newLines());
  awaitEnd();
  net->readLinkNow();
  EXPECT_EQ(Lines{errorLine("connection closed by peer 255.255.255.255:80")}, newLines());
  EXPECT_EQ(-1, net->fd);
}

// As the system reads addresses: fewer numbers than four, hexadecimal and octal ones.
TEST_F(OpenClose, AddressMayBeWrittenInFewerParts) {
  TcpPeer peer;
  pointAt(peer.port());
  for (const char* host : {"127.1", "127.0.1", "0x7f000001", "0177.0.0.01"}) {
    net->command({"host", host});
    EXPECT_EQ("OK", net->command({"open"})) << host;
    EXPECT_EQ(htonl(INADDR_LOOPBACK), net->p_addr.sin_addr.s_addr) << host;
    net->command({"close"});
  }
}

TEST_F(OpenClose, PortBeyond16BitsIsCut) {
  TcpPeer peer;
  pointAt(65536 + peer.port());
  EXPECT_EQ("OK", net->command({"open"}));
  EXPECT_EQ(peer.port(), ntohs(net->p_addr.sin_port));
  EXPECT_TRUE(peer.linkWaits());
}

TEST_F(OpenClose, NamesAreNotResolved) {
  for (const char* host : {"localhost", "example.org", "", "127.0.0.256", "1.2.3.4.5", "::1"}) {
    net->command({"host", host});
    net->command({"port", "1"});
    newLines();
    EXPECT_EQ("ERROR", net->command({"open"})) << host;
    EXPECT_EQ(-1, net->fd);
    const Lines lines = newLines();
    ASSERT_EQ(3U, lines.size());
    EXPECT_EQ(traceLine("opening TCP socket"), lines[0]);
    EXPECT_EQ(2, lines[1].level);
    EXPECT_THAT(lines[1].text, MatchesRegex("invalid ip address \\(errno: [0-9]+ .+\\)"));
    EXPECT_EQ(errorLine("open failed"), lines[2]);
  }
}

TEST_F(OpenClose, FailuresLeakNoDescriptor) {
  const RefusingPort nobody;
  const int next = nextDescriptor();
  pointAt(nobody.port());
  net->command({"open"});
  net->command({"host", "no address"});
  net->command({"open"});
  EXPECT_EQ(next, nextDescriptor());
}

TEST_F(OpenClose, DescriptorThatDoesNotFitIntoReadfdsFailsTheOpening) {
  TcpPeer peer;
  pointAt(peer.port());
  const LowDescriptorsTaken taken;
  if (!taken.possible()) GTEST_SKIP() << "the hard limit of descriptors is below FD_SETSIZE";
  const int next = nextDescriptor();
  ASSERT_GE(next, FD_SETSIZE);
  expectFailure("allocate socket (errno: 24 Too many open files)");
  EXPECT_FALSE(peer.linkWaits());
  EXPECT_EQ(next, nextDescriptor());
}

TEST_F(OpenClose, NoDescriptorLeftFailsTheOpening) {
  pointAt(1);
  const DescriptorLimit none(3);
  ASSERT_TRUE(none.isSet());
  expectFailure("allocate socket (errno: 24 Too many open files)");
}

// What a script may still write is not to cost time then.
TEST_F(OpenClose, RovikThatIsBeingEndedOpensNothing) {
  TcpPeer peer;
  pointAt(peer.port());
  drovane::RovikHost::of(*net).interrupt();
  EXPECT_EQ("ERROR", net->command({"open"}));
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(Lines{errorLine("open failed")}, newLines());
  EXPECT_EQ("open failed", warning());
  EXPECT_FALSE(peer.linkWaits());
}

TEST_F(OpenClose, TestSendsFiveBytes) {
  TcpPeer peer;
  openTo(peer);
  net->command({"addeol", "on"});
  newLines();
  EXPECT_EQ("OK", net->command({"test"}));
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_EQ("OK", net->command({"close"}));
  EXPECT_EQ("TEST\n", peer.receive(6));
}

TEST_F(OpenClose, TestOnABrokenLinkReportsAndCloses) {
  TcpPeer peer;
  openTo(peer);
  peer.reset();
  awaitEnd();
  EXPECT_EQ("ERROR", net->command({"test"}));
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(Lines{errorLine("send (errno: 104 Connection reset by peer)")}, newLines());
  EXPECT_EQ("send (errno: 104 Connection reset by peer)", warning());
}

// The signal of a broken pipe would end the process.
TEST_F(OpenClose, TestOnALinkThatMayNotSendReportsAndCloses) {
  TcpPeer peer;
  openTo(peer);
  ASSERT_EQ(0, ::shutdown(net->fd, SHUT_WR));
  EXPECT_EQ("ERROR", net->command({"test"}));
  EXPECT_EQ(Lines{errorLine("send (errno: 32 Broken pipe)")}, newLines());
  EXPECT_EQ("", net->command({"test"}));
}

// What no peer and no limit can be made to cause.
TEST_F(OpenClose, NoLocalAddress) {
  TcpPeer peer;
  pointAt(peer.port());
  const FailingCall fault("bind", EADDRINUSE);
  expectFailure("bind (errno: 98 Address already in use)");
}

TEST_F(OpenClose, SocketThatCannotBeMadeNonBlocking) {
  TcpPeer peer;
  pointAt(peer.port());
  const FailingCall fault("fcntl", EPERM, 1);
  expectFailure("fcntl (errno: 1 Operation not permitted)");
  EXPECT_FALSE(peer.linkWaits());
}

TEST_F(OpenClose, SocketThatCannotBeMadeBlockingAgain) {
  TcpPeer peer;
  pointAt(peer.port());
  const FailingCall fault("fcntl", EPERM, 2);
  expectFailure("fcntl (errno: 1 Operation not permitted)");
  EXPECT_TRUE(peer.linkWaits());
}

}  // namespace
