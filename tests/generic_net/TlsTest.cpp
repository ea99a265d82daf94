// The link over TLS: how it opens and closes, and what a failure reports.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <future>

#include "CallFaults.h"
#include "TlsNetTest.h"
#include "framework/Descriptor.h"
#include "support/Eventually.h"
#include "support/Inbox.h"
#include "support/Process.h"
#include "support/ProcessMemory.h"
#include "support/SocketPair.h"
#include "support/TempFolder.h"

namespace {

Lines operator+(Lines lines, const Lines& more) {
  lines.insert(lines.end(), more.begin(), more.end());
  return lines;
}

class Tls : public TlsNetTest {
 protected:
  // Opening fails because of the call that is made to fail meanwhile.
  void expectFailureOf(const char* call, const Lines& lines) {
    const FailingCall fault(call, 0);
    expectFailedOpening(openWith(peer, [](TcpPeer&) {}), lines);
    EXPECT_TRUE(fault.happened());
  }

  TcpPeer peer;
};

TEST_F(Tls, OpenSaysSoOnlyInTheTrace) {
  TlsPeer server(selfSigned());
  net->command({"accept_self_cert", "on"});
  EXPECT_EQ("OK", openWith(server));
  EXPECT_EQ((Lines{traceLine("opening SSL socket")} + handshakeLines("/CN=device") +
             Lines{traceLine("Verify ok (accepting self certs!): self-signed certificate")}),
            newLines());
  EXPECT_EQ(0U, warnings());
}

TEST_F(Tls, OpenLinkHoldsTheSessionButNotTheCertificate) {
  TlsPeer server(selfSigned());
  openTo(server);
  EXPECT_NE(nullptr, net->ssl);
  EXPECT_NE(nullptr, net->sslctx);
  EXPECT_EQ(nullptr, net->cert);
  EXPECT_EQ(nullptr, net->certname);
}

TEST_F(Tls, OpenLinkBlocksAndIsNotInherited) {
  TlsPeer server(selfSigned());
  openTo(server);
  EXPECT_EQ(0, fcntl(net->fd, F_GETFL) & O_NONBLOCK);
  EXPECT_EQ(FD_CLOEXEC, fcntl(net->fd, F_GETFD));
}

TEST_F(Tls, NewRovikHoldsNothing) { expectNothingHeld(); }

TEST_F(Tls, CloseReleasesEverythingWithoutAWord) {
  TlsPeer server(selfSigned());
  openTo(server);
  const int link = net->fd;
  EXPECT_EQ("OK", net->command({"close"}));
  expectNothingHeld();
  EXPECT_EQ(-1, fcntl(link, F_GETFD));
  EXPECT_EQ(Lines{}, newLines());
}

TEST_F(Tls, PeerSeesNoFarewellAtClose) {
  TlsPeer server(selfSigned());
  openTo(server);
  EXPECT_EQ("OK", net->command({"close"}));
  EXPECT_EQ("", server.link().receive(1));
  EXPECT_TRUE(server.link().seesEnd());
}

// Between the closing of the descriptor and that of the session another thread may be given the
// number.
TEST_F(Tls, ClosingTheSessionLeavesADescriptorOfTheSameNumberAlone) {
  TlsPeer server(selfSigned());
  openTo(server);
  SocketPair others;
  ASSERT_EQ(net->fd, dup2(others.near.get(), net->fd));
  EXPECT_EQ(0, net->closeSSL());
  EXPECT_EQ(nullptr, net->ssl);
  EXPECT_EQ(0, fcntl(net->fd, F_GETFL) & O_NONBLOCK);
  ASSERT_EQ(1, ::send(net->fd, "x", 1, 0));
  std::array<char, 16> received{};
  EXPECT_EQ(1, ::recv(others.far.get(), received.data(), received.size(), MSG_DONTWAIT));
  EXPECT_EQ('x', received[0]);
}

TEST_F(Tls, ReopensAfterAClose) {
  TlsPeer server(selfSigned());
  openTo(server);
  net->command({"close"});
  openTo(server);
  Inbox inbox;
  feed(server, "again\n");
  EXPECT_EQ(std::vector<std::string>{"again\\n"}, inbox.takeValues());
}

TEST_F(Tls, ReopensAfterAFailure) {
  expectFailureOf("SSL_new", {traceLine("opening TCP socket"),
                              traceLine("An SSL session could not be created!")});
  TlsPeer server(selfSigned());
  openTo(server);
  EXPECT_GE(net->fd, 0);
}

// --- The version -------------------------------------------------------------------------------

// Reads a message of the handshake from its beginning on.
class Reader {
 public:
  explicit Reader(std::string its_bytes) : bytes(std::move(its_bytes)) {}
  std::string take(std::size_t count) {
    EXPECT_LE(position + count, bytes.size());
    position += count;
    return bytes.substr(position - count, count);
  }
  std::size_t number(std::size_t size) {
    std::size_t value = 0;
    for (const char byte : take(size)) value = value << 8 | static_cast<unsigned char>(byte);
    return value;
  }
  bool atEnd() const { return position >= bytes.size(); }

 private:
  std::string bytes;
  std::size_t position = 0;
};

TEST_F(Tls, OffersVersion10AndNothingNewer) {
  std::string record;
  openWith(peer, [&](TcpPeer& it) {
    record = it.receive(5);
    record += it.receive(Reader(record.substr(3)).number(2));
    it.close();
  });
  Reader hello(record);
  EXPECT_EQ("\x16\x03\x01", hello.take(3));
  hello.take(2);
  EXPECT_EQ(1U, hello.number(1));  // ClientHello
  hello.take(3);
  EXPECT_EQ("\x03\x01", hello.take(2));
  hello.take(32);
  hello.take(hello.number(1));  // session
  hello.take(hello.number(2));  // ciphers
  hello.take(hello.number(1));  // compression
  Reader extensions(hello.take(hello.number(2)));
  EXPECT_TRUE(hello.atEnd());
  while (!extensions.atEnd()) {
    EXPECT_NE(43U, extensions.number(2)) << "supported_versions";
    extensions.take(extensions.number(2));
  }
}

TEST_F(Tls, ServerOfNewerVersionsIsRefused) {
  net->command({"accept_self_cert", "on"});
  for (const int version : {TLS1_1_VERSION, TLS1_2_VERSION, TLS1_3_VERSION}) {
    TlsPeer server(selfSigned(), version);
    EXPECT_EQ("ERROR", openWith(server));
    expectNothingHeld();
    EXPECT_EQ((Lines{traceLine("opening SSL socket"), traceLine("opening TCP socket"),
                     traceLine("An SSL session could not be created!"), errorLine("open failed")}),
              newLines());
  }
}

int levelOfNewContext() {
  const std::unique_ptr<SSL_CTX, TlsRelease> context(SSL_CTX_new(TLS_client_method()));
  return SSL_CTX_get_security_level(context.get());
}

TEST_F(Tls, SecurityLevelIsLoweredForTheLinkOnly) {
  const int before = levelOfNewContext();
  ASSERT_GT(before, 0);
  TlsPeer server(selfSigned());
  openTo(server);
  EXPECT_EQ(0, SSL_get_security_level(net->ssl.get()));
  EXPECT_EQ(before, levelOfNewContext());
}

// The server that everybody has, and which turns round each line it gets.
TEST_F(Tls, SpeaksWithTheServerOfTheOpensslCommand) {
  const TempFolder folder;
  const Certificate certificate = selfSigned();
  Process server({"openssl", "s_server", "-tls1", "-cipher", "DEFAULT:@SECLEVEL=0", "-cert",
                  folder.write("cert.pem", certificate.pem()), "-key",
                  folder.write("key.pem", certificate.keyPem()), "-accept", "127.0.0.1:0", "-rev"});
  ASSERT_TRUE(server.waitForOutput("ACCEPT 127.0.0.1:")) << server.errors();
  ASSERT_TRUE(eventually([&] { return server.output().back() == '\n'; }));
  pointAt(std::stoi(server.output().substr(server.output().rfind(':') + 1)));
  Inbox inbox;
  net->command({"accept_self_cert", "on"});
  net->command({"persist", "on"});
  ASSERT_EQ("OK", net->command({"open"})) << server.errors();
  EXPECT_TRUE(server.waitForErrors("Protocol version: TLSv1\n")) << server.errors();
  std::array<char, 4096> line{"state?\n"};
  EXPECT_EQ(0, net->sndData(line.data(), 7, line.size()));
  ASSERT_TRUE(eventually([&] {
    if (net->bytesWaiting() > 0) net->readLinkNow();
    return net->inbufpos == 0 && log.count("MM_DATA") > 0;
  }));
  EXPECT_EQ(std::vector<std::string>{"?etats\\n"}, inbox.takeValues());
}

// --- Certificates that nobody vouches for --------------------------------------------------------

class TlsVerdict : public Tls {
 protected:
  // What comes of a peer with this verdict, when it does not matter and when it does.
  void expectVerdict(TlsPeer& server, const std::string& subject, const std::string& verdict) {
    net->command({"accept_self_cert", "off"});
    expectFailedOpening(openWith(server),
                        handshakeLines(subject) + Lines{traceLine("Verify failed: " + verdict)});
    net->command({"accept_self_cert", "on"});
    EXPECT_EQ("OK", openWith(server));
    EXPECT_EQ((Lines{traceLine("opening SSL socket")} + handshakeLines(subject) +
               Lines{traceLine("Verify ok (accepting self certs!): " + verdict)}),
              newLines());
    EXPECT_GE(net->fd, 0);
    EXPECT_EQ(1U, warnings());
  }
};

TEST_F(TlsVerdict, SelfSigned) {
  TlsPeer server(selfSigned("boiler"));
  expectVerdict(server, "/CN=boiler", "self-signed certificate");
}

// The first thing found wrong is the one that is told.
TEST_F(TlsVerdict, SelfSignedAndExpired) {
  CertificateWish wish;
  wish.expired = true;
  TlsPeer server(makeCertificate(wish));
  expectVerdict(server, "/CN=device", "self-signed certificate");
}

TEST_F(TlsVerdict, IssuerIsNotKnown) {
  const Certificate unknown = authority("Nobody's Authority");
  CertificateWish wish;
  wish.issuer = &unknown;
  TlsPeer server(makeCertificate(wish));
  expectVerdict(server, "/CN=device", "unable to get local issuer certificate");
}

TEST_F(TlsVerdict, IssuerThatIsNotKnownIsSentAlong) {
  const Certificate unknown = authority("Nobody's Authority");
  CertificateWish wish;
  wish.issuer = &unknown;
  TlsPeer server(makeCertificate(wish));
  server.sendAlso(unknown);
  expectVerdict(server, "/CN=device", "self-signed certificate in certificate chain");
}

// --- Failures below and beside the handshake -----------------------------------------------------

TEST_F(Tls, RefusedPort) {
  const RefusingPort nobody;
  pointAt(nobody.port());
  expectFailedOpening(
      net->command({"open"}),
      {traceLine("opening TCP socket"), errorLine("getsockopt (errno: 111 Connection refused)"),
       traceLine("Failed to opent TCP socket")});
}

TEST_F(Tls, PortThatDoesNotAnswer) {
  const UnansweringPort nobody;
  pointAt(nobody.port());
  expectFailedOpening(net->command({"open"}),
                      {traceLine("opening TCP socket"), errorLine("connect timeout"),
                       traceLine("Failed to opent TCP socket")});
}

TEST_F(Tls, NamesAreNotResolved) {
  pointAt(1);
  net->command({"host", "localhost"});
  newLines();
  EXPECT_EQ("ERROR", net->command({"open"}));
  expectNothingHeld();
  const Lines lines = newLines();
  ASSERT_EQ(5U, lines.size());
  EXPECT_EQ(traceLine("opening SSL socket"), lines[0]);
  EXPECT_EQ(traceLine("opening TCP socket"), lines[1]);
  EXPECT_THAT(lines[2].text, testing::MatchesRegex("invalid ip address \\(errno: [0-9]+ .+\\)"));
  EXPECT_EQ(2, lines[2].level);
  EXPECT_EQ(traceLine("Failed to opent TCP socket"), lines[3]);
  EXPECT_EQ(errorLine("open failed"), lines[4]);
  EXPECT_EQ(2U, warnings());
}

// The second that a connection may take is none of the handshake's.
TEST_F(Tls, ServerMayTakeItsTimeForTheHandshake) {
  TlsPeer server(selfSigned());
  net->command({"accept_self_cert", "on"});
  pointAt(server.port());
  auto reply = std::async(std::launch::async, [this] { return net->command({"open"}); });
  EXPECT_EQ(std::future_status::timeout, reply.wait_for(std::chrono::milliseconds(1500)));
  EXPECT_TRUE(server.accept());
  EXPECT_EQ("OK", reply.get());
}

// What no peer can be made to cause.
TEST_F(Tls, NoContext) {
  pointAt(peer.port());
  const FailingCall fault("SSL_CTX_new", 0);
  expectFailedOpening(net->command({"open"}),
                      {traceLine("Failed to create SSL context structure")});
  EXPECT_FALSE(peer.linkWaits());
}

TEST_F(Tls, NoTrustFolder) {
  pointAt(peer.port());
  const FailingCall fault("SSL_CTX_load_verify_locations", 0);
  expectFailedOpening(net->command({"open"}),
                      {traceLine("Trust store failed to load or problem with directory")});
  EXPECT_FALSE(peer.linkWaits());
}

TEST_F(Tls, NoSession) {
  expectFailureOf("SSL_new", {traceLine("opening TCP socket"),
                              traceLine("An SSL session could not be created!")});
}

TEST_F(Tls, NoCertificate) {
  TlsPeer server(selfSigned());
  net->command({"accept_self_cert", "on"});
  const FailingCall fault("SSL_get1_peer_certificate", 0);
  expectFailedOpening(openWith(server), {traceLine("opening TCP socket"),
                                         traceLine("SSL session created successfully!"),
                                         traceLine("Error retrieving certificate")});
}

TEST_F(Tls, SubjectThatCannotBeMadeText) {
  TlsPeer server(selfSigned());
  net->command({"accept_self_cert", "on"});
  const FailingCall fault("X509_NAME_oneline", 0);
  EXPECT_EQ("OK", openWith(server));
  EXPECT_TRUE(fault.happened());
  EXPECT_EQ((Lines{traceLine("opening SSL socket")} + handshakeLines("") +
             Lines{traceLine("Verify ok (accepting self certs!): self-signed certificate")}),
            newLines());
}

// --- Over and over again -------------------------------------------------------------------------

class TlsCycles : public Tls {
 protected:
  void cycle() {
    openTo(server);
    feed(server, "a line\nhalf");
    net->command({"close"});
    net->command({"accept_self_cert", "off"});
    EXPECT_EQ("ERROR", openWith(server));
    EXPECT_EQ("ERROR", openWith(peer, [](TcpPeer& it) { it.close(); }));
  }

  // Neither a descriptor nor a page more after many cycles than after a few.
  void expectNothingGrows() {
    for (int i = 0; i < 20; ++i) cycle();
    const auto descriptors = openDescriptors();
    const long memory = residentMemory();
    for (int i = 0; i < 200; ++i) cycle();
    EXPECT_EQ(descriptors, openDescriptors());
    if (kMemoryIsOurs) {
      EXPECT_LT(residentMemory() - memory, 4L << 20);
    }
  }

  TlsPeer server{selfSigned()};
};

TEST_F(TlsCycles, TwoHundredOpeningsAndFailuresLeaveNothingBehind) { expectNothingGrows(); }

}  // namespace
