// The whole road: a peer on a real socket, the rovik's own thread, the router, another rovik.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <random>

#include "Drovane.h"
#include "NetTest.h"
#include "framework/RovikHost.h"
#include "support/Eventually.h"
#include "support/Inbox.h"
#include "support/TestRovik.h"

namespace {

using drovane::RovikHost;

class LiveLink : public NetTest {
 protected:
  LiveLink() {
    Drovane::global.setLogLevel(LOG_LEVEL_INFO);
    EXPECT_EQ(0, host().start());
  }
  ~LiveLink() override { net->stop(); }

  RovikHost& host() { return RovikHost::of(*net); }
  bool linkOpen() { return host().status().link_open; }

  std::string say(std::vector<std::string> words) {
    const auto result = host().command(std::move(words));
    return result.answered ? result.text : "REFUSED: " + result.text;
  }

  void connect(TcpPeer& to) {
    say({"host", "127.0.0.1"});
    say({"port", std::to_string(to.port())});
    ASSERT_EQ("OK", say({"open"}));
    to.accept();
  }

  std::string gone() const {
    return "connection closed by peer 127.0.0.1:" + std::to_string(peer.port());
  }

  bool waitForEnd() {
    return eventually([this] { return !linkOpen(); });
  }

  TcpPeer peer;
};

TEST_F(LiveLink, LinesReachAnotherRovik) {
  const auto listener = TestRovik::makeRunning(91, "listener");
  connect(peer);
  peer.send("T=21\nhalf");
  ASSERT_TRUE(listener->waitForMessages(1));
  peer.send(" line\n");
  ASSERT_TRUE(listener->waitForMessages(2));
  const auto received = listener->received();
  EXPECT_EQ("T=21\\n", received[0].text);
  EXPECT_EQ("half line\\n", received[1].text);
  EXPECT_EQ(static_cast<std::uint32_t>(MM_DATA), received[1].type);
  EXPECT_EQ(5U, received[1].src);
  EXPECT_EQ("net", received[1].src_s);
  listener->stop();
}

TEST_F(LiveLink, BothKindsOfRuleReachAnotherRovik) {
  Inbox inbox;
  say({"reg", "on"});
  say({"chopeol", "on"});
  say({"regin", "5_1_0", "^T=(.*)$", "\\1"});
  say({"regin", "6_1_0", "^T=(9.*)$", "hot \\1", "MM_ACTUATOR_REQUEST"});
  connect(peer);
  peer.send("T=95\nT=20\n");
  EXPECT_EQ((std::vector{dataText("5_0_0", "T=95"), dataText("5_1_0", "95"),
                         requestText("6_1_0", "hot 95"), dataText("5_0_0", "T=20"),
                         dataText("5_1_0", "20")}),
            inbox.waitFor(5));
}

TEST_F(LiveLink, StatusFollowsTheLink) {
  EXPECT_FALSE(linkOpen());
  connect(peer);
  EXPECT_TRUE(linkOpen());
  EXPECT_EQ("OK", say({"close"}));
  EXPECT_FALSE(linkOpen());
  EXPECT_TRUE(peer.seesEnd());
}

TEST_F(LiveLink, PeerThatClosesIsReportedOnce) {
  connect(peer);
  peer.send("a\n");
  peer.close();
  ASSERT_TRUE(waitForEnd());
  EXPECT_EQ(gone(), warning());
  EXPECT_EQ(1U, log.count(gone()));
  EXPECT_EQ("", say({"close"}));
}

TEST_F(LiveLink, PeerThatResetsIsReported) {
  connect(peer);
  peer.reset();
  ASSERT_TRUE(waitForEnd());
  EXPECT_EQ(gone(), warning());
}

TEST_F(LiveLink, SilentPeerChangesNothing) {
  connect(peer);
  for (int i = 0; i < 20; ++i) EXPECT_EQ("OK", say({"raw", "off"}));
  EXPECT_TRUE(linkOpen());
  EXPECT_EQ(0U, warnings());
}

TEST_F(LiveLink, EolcloseDeliversWhenThePeerHasGone) {
  Inbox inbox;
  say({"eolclose", "on"});
  connect(peer);
  peer.send("X\nY");
  peer.close();
  EXPECT_EQ(std::vector{dataText("5_0_0", "X\\nY")}, inbox.waitFor(1));
  ASSERT_TRUE(waitForEnd());
  EXPECT_EQ(gone(), warning());
}

TEST_F(LiveLink, RefusedOpenIsAnsweredAndTheRovikGoesOn) {
  const RefusingPort nobody;
  say({"host", "127.0.0.1"});
  say({"port", std::to_string(nobody.port())});
  EXPECT_EQ("ERROR", say({"open"}));
  EXPECT_FALSE(linkOpen());
  connect(peer);
  EXPECT_TRUE(linkOpen());
}

TEST_F(LiveLink, SettingsTakeEffectBetweenTwoReads) {
  Inbox inbox;
  connect(peer);
  peer.send("a;b\n");
  EXPECT_EQ(std::vector{dataText("5_0_0", "a;b\\n")}, inbox.waitFor(1));
  say({"eolin", ";"});
  say({"chopeol", "on"});
  say({"network_id", "8"});
  peer.send("c;d;");
  EXPECT_EQ((std::vector{dataText("8_0_0", "c"), dataText("8_0_0", "d")}), inbox.waitFor(2));
}

TEST_F(LiveLink, AnyBytesLeaveTheRovikAtWork) {
  Inbox inbox;
  say({"unparsedout", "off"});
  say({"reg", "on"});
  say({"regin", "1_1_1", "the end", "found"});
  connect(peer);
  std::mt19937 random(7);
  for (int i = 0; i < 64; ++i) {
    std::string bytes;
    while (bytes.size() < 8192) bytes += static_cast<char>(random());
    peer.send(bytes);
  }
  peer.send("\nthe end\n");
  EXPECT_EQ(std::vector{dataText("1_1_1", "found")}, inbox.waitFor(1));
  EXPECT_TRUE(linkOpen());
}

// A receiver that does not keep up slows the peer down; no line is lost or out of order.
TEST_F(LiveLink, SlowReceiverLosesNothing) {
  constexpr std::size_t kLines = 20000;
  Gate gate;
  auto listener = TestRovik::make(91, "listener");
  listener->on_message = [&](RovikMessage*) { gate.pass(); };
  listener->run();
  say({"chopeol", "on"});
  connect(peer);
  std::string lines;
  for (std::size_t i = 0; i < kLines; ++i) lines += std::to_string(i) + "\n";
  peer.send(lines);
  ASSERT_TRUE(gate.waitForVisitor());
  EXPECT_TRUE(eventually([this] { return host().status().held_back; }));
  EXPECT_LT(listener->host().status().queued, kLines / 2);
  gate.open();
  ASSERT_TRUE(listener->waitForMessages(kLines));
  listener->stop();
  const auto received = listener->received();
  for (std::size_t i = 0; i < kLines; ++i) ASSERT_EQ(std::to_string(i), received[i].text);
  EXPECT_EQ(0U, listener->host().status().dropped);
}

// What came before a farewell in good order is delivered; after a reset it may be lost, but what
// arrives is the beginning of what was sent.
TEST_F(LiveLink, PeerMayGoAtAnyMoment) {
  Inbox inbox;
  say({"chopeol", "on"});
  std::mt19937 random(11);
  for (int round = 0; round < 60; ++round) {
    connect(peer);
    const std::size_t lines = random() % 300;
    std::string stream;
    for (std::size_t i = 0; i < lines; ++i) stream += std::to_string(i) + "\n";
    peer.send(stream + "half");
    const bool orderly = random() % 2 == 0;
    orderly ? peer.close() : peer.reset();
    ASSERT_TRUE(waitForEnd());
    const auto values = inbox.takeValues();
    ASSERT_LE(values.size(), lines);
    ASSERT_TRUE(!orderly || values.size() == lines);
    for (std::size_t i = 0; i < values.size(); ++i) ASSERT_EQ(std::to_string(i), values[i]);
  }
}

TEST_F(LiveLink, StopsWhileAPeerFloods) {
  connect(peer);
  std::string lines;
  while (lines.size() < 100000) lines += "a line\n";
  peer.send(lines);
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ(0, net->stop());
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(5));
  EXPECT_EQ("OK", say({"close"}));
}

TEST_F(LiveLink, StopWaitsNoLongerThanAnOpeningMayTake) {
  const UnansweringPort nobody;
  say({"host", "127.0.0.1"});
  say({"port", std::to_string(nobody.port())});
  std::atomic<bool> answered{false};
  const auto open = std::make_shared<drovane::Command>(
      std::vector<std::string>{"open"},
      [&](const drovane::CommandResult& result) { answered = result.text == "ERROR"; });
  ASSERT_TRUE(host().post(open));
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_TRUE(eventually([&] { return answered.load(); }));
  EXPECT_EQ(0, net->stop());
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(4));
}

}  // namespace
