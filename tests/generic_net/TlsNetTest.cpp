#include "TlsNetTest.h"

#include <algorithm>
#include <csignal>
#include <future>

#include "support/Eventually.h"

TlsNetTest::TlsNetTest() : pipe_signal_before(std::signal(SIGPIPE, SIG_IGN)) {}

TlsNetTest::~TlsNetTest() { std::signal(SIGPIPE, pipe_signal_before); }

void TlsNetTest::pointAt(int port) {
  net->command({"mode", "ssl"});
  net->command({"host", "127.0.0.1"});
  net->command({"port", std::to_string(port)});
  newLines();
}

std::string TlsNetTest::openWith(TlsPeer& peer) {
  pointAt(peer.port());
  auto taken = std::async(std::launch::async, [&] { return peer.accept(); });
  std::string reply = net->command({"open"});
  EXPECT_EQ(reply == "OK", taken.get() && net->fd >= 0);
  return reply;
}

std::string TlsNetTest::openWith(TcpPeer& peer, const std::function<void(TcpPeer&)>& misbehave) {
  pointAt(peer.port());
  auto taken = std::async(std::launch::async, [&] {
    peer.accept();
    misbehave(peer);
  });
  std::string reply = net->command({"open"});
  taken.get();
  return reply;
}

void TlsNetTest::openTo(TlsPeer& peer) {
  net->command({"accept_self_cert", "on"});
  ASSERT_EQ("OK", openWith(peer));
  newLines();
}

void TlsNetTest::deliverRecords(TlsPeer& peer, std::string_view records) {
  deliver(peer.link(), records);
}

void TlsNetTest::feed(TlsPeer& peer, std::string_view bytes) {
  deliverRecords(peer, peer.seal(bytes));
  while (net->fd >= 0 && net->bytesWaiting() > 0) net->readLinkNow();
}

void TlsNetTest::expectNothingHeld() const {
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(nullptr, net->ssl);
  EXPECT_EQ(nullptr, net->sslctx);
  EXPECT_EQ(nullptr, net->cert);
  EXPECT_EQ(nullptr, net->certname);
}

void TlsNetTest::expectFailedOpening(const std::string& reply, Lines between) {
  EXPECT_EQ("ERROR", reply);
  expectNothingHeld();
  between.insert(between.begin(), traceLine("opening SSL socket"));
  between.push_back(errorLine("open failed"));
  EXPECT_EQ(between, newLines());
  EXPECT_EQ("open failed", warning());
  const auto reports = std::count_if(between.begin(), between.end(),
                                     [](const CapturedLine& line) { return line.level == 2; });
  EXPECT_EQ(static_cast<std::size_t>(reports), warnings());
}

Lines handshakeLines(const std::string& subject) {
  return {traceLine("opening TCP socket"), traceLine("SSL session created successfully!"),
          traceLine("Certificate retrieved from server: " + subject)};
}

bool TlsNetTest::waitForBytes() const {
  return eventually([this] { return net->bytesWaiting() > 0; });
}
