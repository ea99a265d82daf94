// What the rovik tells of its link, for the status display and for who traces it.
#include "NetTest.h"
#include "framework/RovikHost.h"

namespace {

using drovane::LinkTap;
using drovane::LinkTraffic;
using drovane::RovikHost;

class Bytes final : public LinkTap {
 public:
  void see(Event event, std::string_view bytes) override {
    if (event == Event::Received) received += bytes;
    if (event == Event::Sent) sent += bytes;
  }

  std::string received;
  std::string sent;
};

class Traffic : public NetTest {
 protected:
  void SetUp() override {
    openTo(peer);
    RovikHost::of(*net).traffic.setTap(tap);
  }
  LinkTraffic::Figures figures() const { return RovikHost::of(*net).traffic.figures(); }

  TcpPeer peer;
  const std::shared_ptr<Bytes> tap = std::make_shared<Bytes>();
};

TEST_F(Traffic, LinesAreCountedWithTheirBytesAndTheLastIsShown) {
  net->command({"chopeol", "on"});
  feed(peer, "T=21.3\nT=21.4\nT=2");
  EXPECT_EQ(figures().in.units, 2U);
  EXPECT_EQ(figures().in.bytes, 17U);
  EXPECT_EQ(figures().in.last, "T=21.4");
  EXPECT_EQ(figures().dropped, 0U);
  EXPECT_EQ(tap->received, "T=21.3\nT=21.4\nT=2");
}

TEST_F(Traffic, InRawModeEachReadIsOne) {
  net->command({"raw", "on"});
  feed(peer, std::string("\0\x02", 2));
  EXPECT_EQ(figures().in.units, 1U);
  EXPECT_EQ(figures().in.last, "\\x00\\x02");
}

TEST_F(Traffic, WhatFillsTheBufferWithoutAnEndIsCountedAsDropped) {
  feed(peer, std::string(4096, 'x'));
  EXPECT_EQ(figures().dropped, 1U);
  EXPECT_EQ(figures().in.units, 0U);
  EXPECT_EQ(figures().in.bytes, 4096U);
}

TEST_F(Traffic, WhatIsWrittenIsCountedWithItsEndOfLine) {
  net->persistent = true;
  net->command({"addeol", "on"});
  char text[16] = "HEAT=ON";
  EXPECT_EQ(net->sndData(text, 7, sizeof text), 0);
  EXPECT_EQ(figures().out.units, 1U);
  EXPECT_EQ(figures().out.bytes, 8U);
  EXPECT_EQ(figures().out.last, "HEAT=ON\\n");
  EXPECT_EQ(tap->sent, "HEAT=ON\n");
  EXPECT_EQ(peer.receive(8), "HEAT=ON\n");
}

TEST_F(Traffic, TheTestTextIsWrittenToo) {
  EXPECT_EQ(net->command({"test"}), "OK");
  EXPECT_EQ(tap->sent, "TEST\n");
  EXPECT_EQ(figures().out.bytes, 5U);
}

TEST_F(Traffic, AnEchoIsNotReceived) {
  net->persistent = true;
  net->echo = true;
  char text[16] = "ON\n";
  EXPECT_EQ(net->sndData(text, 3, sizeof text), 0);
  EXPECT_EQ(figures().in.units, 0U);
  EXPECT_EQ(figures().in.bytes, 0U);
}

TEST_F(Traffic, AFailedWriteIsNotCounted) {
  peer.reset();
  awaitEnd();
  char text[16] = "ON\n";
  EXPECT_EQ(net->sndData(text, 3, sizeof text), -1);
  EXPECT_EQ(figures().out.units, 0U);
  EXPECT_EQ(figures().out.bytes, 0U);
}

}  // namespace
