// Openings that the library or the framework refuses, and links that have lost what they need.
#include <cstring>

#include "CallFaults.h"
#include "TlsNetTest.h"
#include "framework/Identity.h"
#include "framework/RovikHost.h"
#include "support/Certificates.h"

namespace {

using testing::ElementsAre;

class TlsRefused : public TlsNetTest {
 protected:
  TcpPeer peer;
};

TEST_F(TlsRefused, AVersionThatTheLibraryDoesNotHave) {
  pointAt(peer.port());
  for (const char* call : {"SSL_CTX_set_min_proto_version", "SSL_CTX_set_max_proto_version"}) {
    const FailingCall fault(call, 0);
    EXPECT_EQ("ERROR", net->command({"open"})) << call;
    EXPECT_TRUE(fault.happened()) << call;
    expectNothingHeld();
    EXPECT_EQ(
        (Lines{traceLine("opening SSL socket"), traceLine("Failed to create SSL context structure"),
               errorLine("open failed")}),
        newLines())
        << call;
  }
  EXPECT_FALSE(peer.linkWaits());
}

TEST_F(TlsRefused, ASocketThatTheSessionDoesNotTake) {
  const FailingCall fault("SSL_set_fd", 0);
  expectFailedOpening(
      openWith(peer, [](TcpPeer&) {}),
      {traceLine("opening TCP socket"), traceLine("An SSL session could not be created!")});
  EXPECT_TRUE(fault.happened());
}

TEST_F(TlsRefused, AReadWithoutASessionIsTheEndOfTheLink) {
  TlsPeer server(selfSigned());
  openTo(server);
  net->ssl.reset();
  net->readLinkNow();
  EXPECT_EQ(
      (Lines{errorLine("connection closed by peer 127.0.0.1:" + std::to_string(server.port()))}),
      newLines());
  expectNothingHeld();
}

TEST_F(TlsRefused, AWriteWithoutASessionIsTheEndOfTheLink) {
  TlsPeer server(selfSigned());
  openTo(server);
  net->ssl.reset();
  char data[64] = "x";
  EXPECT_EQ(-1, net->sndData(data, 1, sizeof data));
  EXPECT_EQ((Lines{traceLine("SSL_write"), errorLine("ssl write (errno: 0 Success)")}), newLines());
  expectNothingHeld();
}

// A rovik that is made to end between the look at that and the opening itself.
class LateNet final : public GenericNet {
 public:
  int openWith(ComMode mode) {
    switch (mode) {
      case COM_UDP:
        return openUDP();
      case COM_TTY:
        return openTTY();
      default:
        return openTCP();
    }
  }
  using GenericNet::fd;
  using GenericNet::tty;
};

TEST(LinkOfARovikThatEnds, IsNotOpenedAnyMore) {
  LogCapture log(2);
  const drovane::IdentityForConstruction identity(5, "net");
  LateNet net;
  std::strcpy(net.tty, "/dev/null");
  drovane::RovikHost::of(net).interrupt();
  for (const ComMode mode : {COM_UDP, COM_TCP, COM_TTY}) {
    EXPECT_EQ(-1, net.openWith(mode));
    EXPECT_EQ(-1, net.fd);
  }
  EXPECT_THAT(
      log.lines(),
      ElementsAre(errorLine("allocate socket (errno: 125 Operation canceled)"),
                  errorLine("allocate socket (errno: 125 Operation canceled)"),
                  errorLine("open serial port: /dev/null (errno: 125 Operation canceled)")));
}

}  // namespace
