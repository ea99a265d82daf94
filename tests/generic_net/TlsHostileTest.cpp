// The link over TLS to servers that are broken, hostile or older than they should be.
#include <atomic>
#include <chrono>
#include <future>
#include <string>

#include "TlsNetTest.h"
#include "framework/RovikHost.h"
#include "support/Eventually.h"
#include "support/Inbox.h"

namespace {

using std::chrono::steady_clock;
using Values = std::vector<std::string>;

// One record around some bytes, as TLS 1.0 has it.
std::string record(int type, const std::string& bytes) {
  const auto size = bytes.size();
  return std::string{static_cast<char>(type), 3, 1, static_cast<char>(size >> 8),
                     static_cast<char>(size)} +
         bytes;
}

constexpr int kAlert = 21;
constexpr int kHandshake = 22;
constexpr int kData = 23;

// A message of the handshake.
std::string message(int type, const std::string& body) {
  const auto size = body.size();
  return std::string{static_cast<char>(type), static_cast<char>(size >> 16),
                     static_cast<char>(size >> 8), static_cast<char>(size)} +
         body;
}

// The greeting of a server that knows nothing of extensions, and so not of secure renegotiation:
// TLS 1.0, no session, AES-128 with SHA, no compression.
std::string oldServerHello() {
  return message(2, std::string{3, 1} + std::string(32, 'r') + std::string{0, 0, 0x2f, 0});
}

// Reads what the client says first, and nothing of it.
void takeClientHello(TcpPeer& peer) {
  const std::string header = peer.receive(5);
  ASSERT_EQ(5U, header.size());
  peer.receive(static_cast<std::size_t>(static_cast<unsigned char>(header[3]) << 8 |
                                        static_cast<unsigned char>(header[4])));
}

class TlsHostile : public TlsNetTest {
 protected:
  // The opening fails in the handshake.
  void expectNoSession(const std::function<void(TcpPeer&)>& misbehave) {
    expectFailedOpening(
        openWith(peer, misbehave),
        {traceLine("opening TCP socket"), traceLine("An SSL session could not be created!")});
  }

  // The same for a server that says something after the greeting; the client hangs up at once.
  void expectHangsUpOn(const std::string& bytes) {
    expectNoSession([&](TcpPeer& it) {
      takeClientHello(it);
      it.send(bytes);
      EXPECT_TRUE(it.seesEnd());
    });
  }

  TcpPeer peer;
};

TEST_F(TlsHostile, ClosesAtOnce) {
  expectNoSession([](TcpPeer& it) { it.close(); });
}

TEST_F(TlsHostile, ResetsDuringTheGreeting) {
  expectNoSession([](TcpPeer& it) {
    it.receive(1);
    it.reset();
  });
}

TEST_F(TlsHostile, ClosesAfterTheGreeting) {
  expectNoSession([](TcpPeer& it) {
    takeClientHello(it);
    it.close();
  });
}

TEST_F(TlsHostile, ClosesInsideARecord) {
  expectNoSession([](TcpPeer& it) {
    takeClientHello(it);
    it.send(record(kHandshake, oldServerHello()).substr(0, 20));
    it.close();
  });
}

TEST_F(TlsHostile, ClosesInMidHandshake) {
  expectNoSession([](TcpPeer& it) {
    takeClientHello(it);
    it.send(record(kHandshake, oldServerHello()));
    it.close();
  });
}

TEST_F(TlsHostile, SendsGarbage) { expectHangsUpOn(std::string(4096, '\xa5')); }

TEST_F(TlsHostile, SpeaksPlainText) { expectHangsUpOn("220 gateway ready\r\n"); }

TEST_F(TlsHostile, SpeaksHttp) { expectHangsUpOn("HTTP/1.1 400 Bad Request\r\n\r\n"); }

TEST_F(TlsHostile, SendsARecordThatIsTooLong) {
  expectHangsUpOn(std::string("\x16\x03\x01\xff\xff", 5) + std::string(1000, 'x'));
}

TEST_F(TlsHostile, SendsDataBeforeTheHandshake) { expectHangsUpOn(record(kData, "hello\n")); }

TEST_F(TlsHostile, SendsAMessageOfNoType) {
  expectHangsUpOn(record(kHandshake, message(99, "what?")));
}

TEST_F(TlsHostile, AnswersWithAnAlert) {
  expectHangsUpOn(record(kAlert, std::string{2, 40}));  // fatal, handshake_failure
}

TEST_F(TlsHostile, WarnsForEver) {
  std::string warnings;
  for (int i = 0; i < 1000; ++i) warnings += record(kAlert, std::string{1, 90});
  expectHangsUpOn(warnings);
}

TEST_F(TlsHostile, SendsEmptyRecordsForEver) {
  std::string records;
  for (int i = 0; i < 1000; ++i) records += record(kHandshake, "");
  expectHangsUpOn(records);
}

// The complaint is about the certificate that comes next, which only a client makes who has
// accepted the greeting.
TEST_F(TlsHostile, ServerWithoutSecureRenegotiationIsNotRefusedForThat) {
  std::string alert;
  expectNoSession([&](TcpPeer& it) {
    takeClientHello(it);
    it.send(record(kHandshake, oldServerHello()) + record(kHandshake, message(11, "\xff\xff\xff")));
    alert = it.receive(7);
  });
  EXPECT_EQ(record(kAlert, std::string{2, 50}), alert);  // fatal, decode_error
}

// --- Certificates with hostile names -------------------------------------------------------------

class TlsSubject : public TlsNetTest {
 protected:
  // A link to a peer of this name opens and says so in one line.
  void expectShownAs(const std::string& shown, const std::string& name) {
    TlsPeer server(certificateOf(name));
    net->command({"accept_self_cert", "on"});
    EXPECT_EQ("OK", openWith(server));
    Lines expected = {traceLine("opening SSL socket")};
    for (const auto& line : handshakeLines("/CN=" + shown)) expected.push_back(line);
    expected.push_back(
        traceLine("Verify ok (accepting self certs!): unable to get local issuer certificate"));
    EXPECT_EQ(expected, newLines());
    net->command({"close"});
  }

  // One that holds the name once, not as its issuer's too.
  static Certificate certificateOf(const std::string& name) {
    const Certificate issuer = authority("Somebody");
    CertificateWish wish;
    wish.common_name = name;
    wish.issuer = &issuer;
    return makeCertificate(wish);
  }
};

TEST_F(TlsSubject, ZeroBytesDoNotCutTheName) {
  expectShownAs("good\\x00.evil", std::string("good\0.evil", 10));
}

TEST_F(TlsSubject, ControlBytesAreShownAsText) {
  expectShownAs("a\\x0D\\x0A2026-01-01 2 0 drovane forged\\x1B[2J",
                "a\r\n2026-01-01 2 0 drovane forged\x1b[2J");
}

TEST_F(TlsSubject, DirectivesOfFormatsAreText) { expectShownAs("%s%n%1000000d", "%s%n%1000000d"); }

TEST_F(TlsSubject, BytesBeyondAsciiAreShownAsText) { expectShownAs("\\xFF\\xFE", "\xff\xfe"); }

TEST_F(TlsSubject, EmptyName) { expectShownAs("", ""); }

// A handshake takes certificates up to 100 KiB.
TEST_F(TlsSubject, NameOf90Kilobytes) {
  expectShownAs(std::string(90000, 'x'), std::string(90000, 'x'));
}

TEST_F(TlsSubject, NameOf90KilobytesOfControlBytes) {
  std::string shown;
  for (int i = 0; i < 90000; ++i) shown += "\\x01";
  expectShownAs(shown, std::string(90000, '\x01'));
}

TEST_F(TlsSubject, LargerCertificateIsRefusedInTheHandshake) {
  TlsPeer server(certificateOf(std::string(110000, 'x')));
  net->command({"accept_self_cert", "on"});
  expectFailedOpening(openWith(server), {traceLine("opening TCP socket"),
                                         traceLine("An SSL session could not be created!")});
}

// --- Negotiating anew, with the rovik at work ----------------------------------------------------

class TlsLive : public TlsNetTest {
 protected:
  TlsLive() {
    for (const char* word : {"accept_self_cert", "chopeol", "persist"}) net->command({word, "on"});
    EXPECT_EQ("OK", openWith(server));
    EXPECT_EQ(0, host().start());
  }
  ~TlsLive() override { net->stop(); }

  drovane::RovikHost& host() { return drovane::RovikHost::of(*net); }

  std::string say(std::vector<std::string> words) {
    const auto result = host().command(std::move(words));
    return result.answered ? result.text : "REFUSED: " + result.text;
  }

  TlsPeer server{selfSigned()};
};

TEST_F(TlsLive, LinesReachOthers) {
  Inbox inbox;
  server.send("one\ntwo\nha");
  server.send("lf\n");
  EXPECT_EQ(
      (std::vector{dataText("5_0_0", "one"), dataText("5_0_0", "two"), dataText("5_0_0", "half")}),
      inbox.waitFor(3));
}

TEST_F(TlsLive, LinkWorksOnAfterNegotiatingAnew) {
  Inbox inbox;
  server.send("before\n");
  EXPECT_EQ(std::vector{dataText("5_0_0", "before")}, inbox.waitFor(1));
  ASSERT_TRUE(server.negotiateAnew());
  server.send("after\n");
  EXPECT_EQ(std::vector{dataText("5_0_0", "after")}, inbox.waitFor(1));
  EXPECT_EQ(0U, warnings());
}

TEST_F(TlsLive, PeerThatNegotiatesForEverDoesNotHoldTheRovikUp) {
  std::atomic<int> rounds{0};
  auto busy = std::async(std::launch::async, [&] {
    while (server.negotiateAnew()) ++rounds;
  });
  EXPECT_TRUE(eventually([&] { return rounds > 20; }));
  for (int i = 0; i < 20; ++i) EXPECT_EQ("OK", say({"raw", "off"}));
  EXPECT_TRUE(host().status().link_open);
  const auto begun = steady_clock::now();
  EXPECT_EQ(0, net->stop());
  EXPECT_LT(steady_clock::now() - begun, std::chrono::seconds(5));
  EXPECT_EQ("OK", say({"close"}));
  busy.get();
}

TEST_F(TlsLive, PeerThatStopsHalfwayDoesNotHoldTheRovikUp) {
  const std::string records = server.seal("never ending\n");
  server.link().send(std::string_view(records).substr(0, records.size() - 1));
  EXPECT_TRUE(eventually([this] { return net->bytesWaiting() == 0; }));
  for (int i = 0; i < 20; ++i) EXPECT_EQ("OK", say({"raw", "off"}));
  EXPECT_TRUE(host().status().link_open);
  const auto begun = steady_clock::now();
  EXPECT_EQ(0, net->stop());
  EXPECT_LT(steady_clock::now() - begun, std::chrono::seconds(5));
}

}  // namespace
